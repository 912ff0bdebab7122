# shellcheck shell=bash
# Debian packages whose files are needed and whose services are not: unpacked, not installed.

# unpacked CACHE FILE FOLDER PACKAGE...: FOLDER of the packages in CACHE, unless FILE is there. Deleting CACHE is always safe.
unpacked() {
    # The list of packages may be older than the mirror: look once for what replaced a version that is gone.
    [ -e "$1/$2" ] || unpack "$1" "${@:3}" || { apt-get update -q >&2 && unpack "$1" "${@:3}"; }
}

# CACHE appears only when all of it is there.
unpack() {
    local work=$1.new package
    rm -rf "$work" "$1"
    mkdir -p "$work"
    (cd "$work" && apt-get download -q "${@:3}" >&2) || return
    for package in "$work"/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -x -C "$work" "$2" && rm "$package" || return
    done
    mv "$work" "$1"
}
