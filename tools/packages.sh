# shellcheck shell=bash
# The Debian packages that the commands need, by what they are needed for, and a function that installs those missing.

declare -A packages=(
    [build]="g++ cmake ninja-build pkg-config linux-libc-dev libboost-dev libboost-filesystem-dev libboost-system-dev
        libpugixml-dev libspdlog-dev libfmt-dev nlohmann-json3-dev libcli11-dev libmount-dev libblkid-dev
        libudev-dev libsmartcols-dev libmicrohttpd-dev libsystemd-dev prometheus-cpp-dev libcurl4-openssl-dev"
    [test]="ccache libgtest-dev libgmock-dev libbenchmark-dev udev mdadm sdparm hdparm util-linux jq python3 python3-jsonschema
        python3-yaml bash-completion zsh fish sudo curl systemd"
    [console]="cockpit-ws cockpit-bridge chromium chromium-driver python3-selenium fonts-dejavu-core nodejs"
    [fleet]="ansible-core ansible-lint"
    [packages]="debhelper dh-python dpkg-dev fakeroot lintian"
    [lint]="clang clang-tidy clang-format libclang-rt-14-dev shellcheck mandoc"
    [vm]="qemu-system-x86 seabios ipxe-qemu busybox-static cpio kmod xz-utils udev mdadm sdparm hdparm util-linux
        systemd e2fsprogs"
)

# missing_packages GROUP...: prints those that are not installed.
missing_packages() {
    local group package
    for group; do
        for package in ${packages[$group]}; do
            [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || echo "$package"
        done
    done | sort -u
}

# ensure GROUP...: installs what is missing of these groups; fails when it cannot.
ensure() {
    local missing as_root=()
    if ! command -v dpkg-query >/dev/null; then
        echo "This is not a Debian system: the packages of the groups '$*' in tools/packages.sh must be there." >&2
        return 0
    fi
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} != 0 ] || return 0
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || { echo "Please install as root: ${missing[*]}" >&2 && return 1; }
        as_root=(sudo -n)
    fi
    echo "Installing ${missing[*]}" >&2
    as_root+=(env DEBIAN_FRONTEND=noninteractive apt-get -q -o Dpkg::Use-Pty=0)
    "${as_root[@]}" update </dev/null >&2 || return 1
    "${as_root[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null >&2
}
