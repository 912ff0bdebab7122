#!/bin/bash
# Makes what a guest boots from and prints where it lies, a path a line: a kernel and an initramfs.
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

# download_kernel DIR: the package that the distribution's newest kernel comes in.
download_kernel() {
    local package
    package=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-/ { print $2; exit }')
    echo "prepare.sh: downloading ${package:-the kernel}" >&2
    [ -n "$package" ] && (cd "$1" && apt-get download -q "$package" >&2)
}

# unpack_vmlinux BZIMAGE VMLINUX: QEMU starts the plain ELF image directly, and unpacking it once here is much cheaper
# than having the emulated processor do it at every boot. Offsets are those of the x86 boot protocol's setup header.
unpack_vmlinux() {
    local setup offset length
    setup=$(od -An -tu1 -j $((0x1f1)) -N1 "$1" | tr -d ' ')
    read -r offset length < <(od -An -tu4 -j $((0x248)) -N8 "$1")
    # The payload ends with the unpacked size as four raw bytes, which are no part of the compressed stream.
    dd if="$1" bs=1M status=none iflag=skip_bytes,count_bytes skip=$(((setup + 1) * 512 + offset)) \
        count=$((length - 4)) | xz -dc --format=xz >"$2"
}

# make_kernel DIR: the kernel's tree without the large groups that no guest here has hardware for, DIR/vmlinux and
# DIR/version; DIR appears only when all of it is there.
make_kernel() {
    local work=$1.new
    rm -rf "$work"
    mkdir -p "$work/tree"
    # The list of packages may be older than the mirror: look once for what replaced a version that is gone.
    download_kernel "$work" || { apt-get update -q >&2 && download_kernel "$work"; }
    dpkg-deb --fsys-tarfile "$work"/*.deb | tar -x -C "$work/tree" --wildcards \
        --exclude='*/kernel/drivers/'{gpu,net,media,staging,infiniband} --exclude='*/kernel/sound' --exclude='./usr'
    rm "$work"/*.deb
    basename "$work"/tree/lib/modules/* >"$work/version"
    depmod -b "$work/tree" "$(<"$work/version")"
    unpack_vmlinux "$work"/tree/boot/vmlinuz-* "$work/vmlinux"
    mv "$work" "$1"
}

# load_order KERNEL MODULE...: files in the order they must be loaded in, each once.
load_order() {
    local module
    for module in "${@:2}"; do
        modprobe -d "$1/tree" -S "$(<"$1/version")" --show-depends "$module"
    done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }'
}

# make_initramfs KERNEL IMAGE
make_initramfs() {
    local work file number=1000
    work=$(mktemp -d "$cache/initramfs.XXXXXX")
    # shellcheck disable=SC2064  # the folder is known now
    trap "rm -rf '$work'" RETURN
    mkdir -p "$work"/tree/{bin,boot,extra,proc,sys,dev,lower,upper,new}
    install "$(command -v busybox)" "$work/tree/bin/busybox"
    install "$here/guest/init" "$work/tree/init"
    load_order "$1" "${boot_modules[@]}" >"$work/boot"
    load_order "$1" "${boot_modules[@]}" "${extra_modules[@]}" | grep -vxFf "$work/boot" >"$work/extra"
    # A file's number keeps the order, its name is the module's.
    for group in boot extra; do
        while read -r file; do
            install -m 644 "$file" "$work/tree/$group/$((number++))-$(basename "$file")"
        done <"$work/$group"
    done
    (cd "$work/tree" && find . | cpio --quiet -o -H newc) >"$work/image"
    mv "$work/image" "$2"
}

mkdir -p "$cache"
cache=$(cd "$cache" && pwd)
# Two builds may share the cache: who comes second waits, and finds it made.
exec 9>"$cache/lock"
flock 9
[ -d "$cache/kernel" ] || make_kernel "$cache/kernel"
key=$(cat "$cache/kernel/version" "$here/guest/init" "${BASH_SOURCE[0]}" | sha256sum | cut -c1-12)
initramfs=$cache/initramfs-$key.cpio
if [ ! -f "$initramfs" ]; then
    rm -f "$cache"/initramfs-*.cpio
    make_initramfs "$cache/kernel" "$initramfs"
fi
printf '%s\n' "$cache/kernel/vmlinux" "$initramfs"
