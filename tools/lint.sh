#!/bin/bash
# Rules of this repository that no compiler knows. Each is a function that prints what breaks it and then fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

sources=(Src system simulator host libraries framework tests bench)

all_sources() {
    find "${sources[@]}" -name '*.h' -o -name '*.cpp'
}

all_scripts() {
    { git ls-files --cached --others --exclude-standard 2>/dev/null || find . -type f -not -path './build/*' -not -path './.*/*'; } |
        while read -r file; do
            [ ! -f "$file" ] || ! head -n1 "$file" | grep -qaE '^(#!/bin/(ba|busybox )?sh|# shellcheck shell=)' || echo "$file"
        done
}

# none MESSAGE GREP-ARGUMENT...: grep finds nothing.
none() {
    local message=$1 found
    shift
    if found=$(grep -rnIE "$@"); then
        printf '%s\n' "$message" "$found"
        return 1
    fi
}

# The plug-in does nothing to the machine but through COperatingSystem: that is what lets a test stand in its place.
door_to_linux() {
    local headers='unistd\.h|fcntl\.h|sys/(ioctl|stat|select|types|wait|mount|sysmacros)\.h|poll\.h|spawn\.h|dirent\.h'
    headers+='|time\.h|ctime|fstream|filesystem|boost/filesystem/(fstream|operations)\.hpp'
    local calls='open|close|read|write|pread|pwrite|lseek|ioctl|stat|lstat|fstat|readlink|mknod|unlink|rename|mkdir'
    calls+='|select|poll|fork|popen|system|getenv|time|clock_gettime|gettimeofday|sleep|usleep|nanosleep'
    local status=0
    none "Src includes a header of the operating system's:" "^ *#include *<($headers)>" Src || status=1
    none "Src calls the operating system:" "(^|[^A-Za-z0-9_>:])(::|std::)($calls)\(" Src || status=1
    return "$status"
}

# Arrows point one way: nothing that is shipped knows the simulation or the host.
dependencies() {
    local status=0
    none "The plug-in includes what it must not know:" '#include "(simulator|host|tests)/' Src system || status=1
    none "The host includes the plug-in's insides:" '#include "(Src|system|simulator|tests)/' host || status=1
    return "$status"
}

marks() {
    none "Work left behind:" --exclude-dir=build --exclude-dir=.git --exclude-dir=.cache \
        '\b(TO[D]O|FIX[M]E|XX[X]|HA[C]K)\b' .
}

format() {
    all_sources | xargs -r clang-format --dry-run --Werror
}

# SC2016: a condition that wait_for evaluates later stands in single quotes.
scripts() {
    all_scripts | xargs -r shellcheck -x -e SC2016
}

man_pages() {
    find docs packaging -name '*.[1-8]' -print0 | xargs -0 -r mandoc -T lint -W warning
}

"$@"
