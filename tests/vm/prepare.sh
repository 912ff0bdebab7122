#!/bin/bash
# Makes what a guest boots from and prints where it lies: a kernel (vmlinux) and an initramfs.
#
#   prepare.sh        prints KERNEL and INITRAMFS, one path a line
#
# The kernel is the distribution's own. It is downloaded and unpacked into the cache, not installed: installing it would
# run initramfs hooks that have no business here. RVX_VM_CACHE moves the cache; deleting the cache is always safe.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
cache=${RVX_VM_CACHE:-$here/../../.cache/vm}

# What the guest loads at boot, in this order. raid6's speed measurement costs a second of every boot, so what needs it
# is carried along but only loaded by a machine that asks for it ("modules raid456").
boot_modules=(virtio_pci virtio_console virtio_blk virtio_scsi 9pnet_virtio 9p overlay sd_mod ahci ata_piix mptsas
    md-mod raid0 raid1 linear ext4)
extra_modules=(raid10 raid456)

fail() {
    echo "prepare.sh: $*" >&2
    exit 1
}

# The package that the distribution's newest kernel comes in.
kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null | awk '$1 == "Depends:" && /linux-image-/ { print $2; exit }'
}

download_kernel() {
    local into=$1 package
    package=$(kernel_package)
    [ -n "$package" ] || fail "linux-image-amd64 is not known to apt; run apt-get update first"
    echo "prepare.sh: downloading $package" >&2
    # The list of packages may be older than the mirror: look once for what replaced a version that is gone.
    if ! (cd "$into" && apt-get download -q "$package" >&2); then
        apt-get update -q >&2 || fail "cannot refresh the list of packages"
        package=$(kernel_package)
        (cd "$into" && apt-get download -q "$package" >&2) || fail "cannot download $package"
    fi
}

# unpack_kernel DEB DIR: the kernel and its modules without the large groups that no guest here has hardware for.
unpack_kernel() {
    mkdir -p "$2"
    dpkg-deb --fsys-tarfile "$1" | tar -x -C "$2" --wildcards \
        --exclude='*/kernel/drivers/gpu' --exclude='*/kernel/drivers/net' --exclude='*/kernel/drivers/media' \
        --exclude='*/kernel/drivers/staging' --exclude='*/kernel/drivers/infiniband' --exclude='*/kernel/sound' \
        --exclude='./usr'
}

# unpack_vmlinux BZIMAGE VMLINUX: QEMU starts the plain ELF image directly, and unpacking it once here is much cheaper
# than having the emulated processor do it at every boot. Offsets are those of the x86 boot protocol's setup header.
unpack_vmlinux() {
    local image=$1 setup offset length
    setup=$(od -An -tu1 -j $((0x1f1)) -N1 "$image" | tr -d ' ')
    offset=$(od -An -tu4 -j $((0x248)) -N4 "$image" | tr -d ' ')
    length=$(od -An -tu4 -j $((0x24c)) -N4 "$image" | tr -d ' ')
    # The payload ends with the unpacked size as four raw bytes, which are no part of the compressed stream.
    dd if="$image" of="$2.packed" bs=1M status=none iflag=skip_bytes,count_bytes \
        skip=$(((setup + 1) * 512 + offset)) count=$((length - 4))
    case $(od -An -tx1 -N4 "$2.packed" | tr -d ' ') in
        fd377a58) xz -dc --format=xz "$2.packed" >"$2" ;;
        28b52ffd) zstd -dcq "$2.packed" >"$2" ;;
        *) fail "$image is packed in a way that is not known here" ;;
    esac
    rm "$2.packed"
}

# make_kernel DIR: everything under DIR/tree, DIR/vmlinux and DIR/version; DIR appears only when all of it is there.
make_kernel() {
    local work=$1.new
    rm -rf "$work"
    mkdir -p "$work"
    download_kernel "$work"
    unpack_kernel "$work"/*.deb "$work/tree"
    rm "$work"/*.deb
    basename "$work"/tree/lib/modules/* >"$work/version"
    depmod -b "$work/tree" "$(<"$work/version")"
    unpack_vmlinux "$work"/tree/boot/vmlinuz-* "$work/vmlinux"
    mv "$work" "$1"
}

# load_order TREE VERSION MODULE...: files in the order they must be loaded in, each once.
load_order() {
    local tree=$1 version=$2 module
    shift 2
    for module; do
        modprobe -d "$tree" -S "$version" --show-depends "$module"
    done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }'
}

make_initramfs() {
    local kernel=$1 image=$2 version work file number=1000
    version=$(<"$kernel/version")
    work=$(mktemp -d "$cache/initramfs.XXXXXX")
    # shellcheck disable=SC2064  # the folder is known now
    trap "rm -rf '$work'" RETURN
    mkdir -p "$work"/tree/{bin,boot,extra,proc,sys,dev,lower,upper,new}
    install "$(command -v busybox)" "$work/tree/bin/busybox"
    install "$here/guest/init" "$work/tree/init"
    load_order "$kernel/tree" "$version" "${boot_modules[@]}" >"$work/boot"
    load_order "$kernel/tree" "$version" "${boot_modules[@]}" "${extra_modules[@]}" | grep -vxFf "$work/boot" >"$work/extra"
    # A file's number keeps the order, its name is the module's.
    for group in boot extra; do
        while read -r file; do
            install -m 644 "$file" "$work/tree/$group/$((number++))-$(basename "$file")"
        done <"$work/$group"
    done
    (cd "$work/tree" && find . | cpio --quiet -o -H newc) >"$work/image"
    mv "$work/image" "$image"
}

main() {
    local kernel initramfs key
    mkdir -p "$cache"
    cache=$(cd "$cache" && pwd)
    kernel=$cache/kernel
    # Two builds may share the cache: who comes second waits, and finds it made.
    exec 9>"$cache/lock"
    flock 9
    [ -d "$kernel" ] || make_kernel "$kernel"
    key=$(cat "$kernel/version" "$here/guest/init" "${BASH_SOURCE[0]}" | sha256sum | cut -c1-12)
    initramfs=$cache/initramfs-$key.cpio
    if [ ! -f "$initramfs" ]; then
        rm -f "$cache"/initramfs-*.cpio
        make_initramfs "$kernel" "$initramfs"
    fi
    printf '%s\n' "$kernel/vmlinux" "$initramfs"
}

main
