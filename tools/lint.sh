#!/bin/bash
# Rules of this repository that no compiler knows. Each is a function that prints what breaks it and then fails.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

sources=(Src system simulator host rvxctl rvxd notify libraries framework examples tests bench)

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
# What its objects ask of libraries tells, however a call is written.
door_to_linux() {
    local headers='unistd\.h|fcntl\.h|sys/(ioctl|stat|select|types|wait|mount|sysmacros)\.h|poll\.h|spawn\.h|dirent\.h'
    headers+='|time\.h|ctime|fstream|filesystem|boost/filesystem/(fstream|operations)\.hpp'
    # The language's own, memory and text, and what a release makes of them; printf for the one line that tells of the start.
    local plain='_Unwind_Resume|_GLOBAL_OFFSET_TABLE_|__(assert_fail|cxa_[a-z_]+|dso_handle|dynamic_cast|errno_location)|__(stack_chk_fail|(sn)?printf_chk|(mem|str)n?[a-z]+_chk)'
    plain+='|__gxx_personality_v0|pthread_mutex_(lock|unlock)|mem(chr|cmp|cpy|move|set)|str(cmp|len|ncpy|error_r)|isspace'
    plain+='|__isoc99_sscanf|snprintf|printf|fflush|stdout'
    local past='^(std::(filesystem|chrono|thread|this_thread|random_device)|std::basic_[io]*fstream'
    past+='|boost::filesystem::(detail|directory)|KVTX::CSystem(PartitionTable)?::|KVT::Misc::CKvtApplication::)'
    local build=${1:-build/dev} status=0 symbols
    none "Src includes a header of the operating system's:" "^ *#include *<($headers)>" Src || status=1
    symbols=$(nm -u "$build"/Src/lib*.a | awk '$1 == "U" { print $2 }' | sort -u)
    [ -n "$symbols" ] || { echo "$build holds no objects of Src that could be looked at." && return 1; }
    ! grep -v '^_Z' <<<"$symbols" | grep -vxE "$plain" | sed 's/^/Src calls past the door: /' | grep . || status=1
    ! grep '^_Z' <<<"$symbols" | c++filt | grep -E "$past" | sed 's/^/Src calls past the door: /' | grep . || status=1
    return "$status"
}

# The compiler finds only what a room's target may include; that md's own does without framework and model is said here.
dependencies() {
    none "md's room includes what it must not know:" '#include "(PI|KVT|KVTX|Src/piRVX)' Src/md
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

# Programs run as root from wherever somebody stands: a library that a loader looks for there belongs to anybody.
library_paths() {
    local files found
    mapfile -t files < <(find build -type f -perm /111 -not -path '*/CMakeFiles/*' -exec grep -lm1 $'^\x7fELF' {} +)
    [ ${#files[@]} != 0 ] || { echo "Nothing is built that could be looked at." && return 1; }
    found=$(readelf -dW "${files[@]}" | awk '
        /^File: / { file = $2 }
        /\((RPATH|RUNPATH)\)/ {
            sub(/^[^[]*\[/, ""); sub(/\]$/, "")
            count = split($0 ":", folders, ":") - 1
            for (i = 1; i <= count; ++i)
                if (folders[i] !~ /^(\/|\$ORIGIN(\/|$))/) print file ": \"" folders[i] "\" of its search path is relative"
        }
        /\(NEEDED\)/ && /\[[^\/].*\// { print file ": " $NF " is relative" }')
    [ -z "$found" ] || { printf '%s\n' "Libraries from the current folder (build anew what an older build left):" "$found" && return 1; }
}

# hardened FILE FACT...: it has all of them, as extended regular expressions, and nothing tells where it was built. That
# control-flow protection is on shows in the code alone: a library of the system that lacks it clears the file's mark.
hardened() {
    local file=$1 facts fact status=0
    facts=$(readelf -hdlW "$file" && nm -D "$file" && echo "endbr64 $(objdump -d "$file" | grep -c endbr64)") || return 1
    shift
    for fact in 'Type: +DYN' 'GNU_RELRO' 'BIND_NOW|Flags:.* NOW' 'GNU_STACK .* RW ' '__stack_chk_fail@' "$@"; do
        grep -qE -- "$fact" <<<"$facts" || { echo "$file lacks $fact" && status=1; }
    done
    ! grep -qaF "$PWD" "$file" || { echo "$file contains the name of the folder it was built in" && status=1; }
    return "$status"
}

release() {
    local build=${1:-build/debian} plugins status=0 branches='endbr64 [0-9]{2,}' fortified='__[a-z]+_chk@' asserting='__glibcxx_assert_fail' kept='Flags:.* NODELETE'
    plugins=$(dirname "$build"/lib/*/piRVX/libpiRVX.so)
    hardened "$build/bin/rvxctl" 'Flags:.* PIE' 'endbr64 [3-9]' || status=1
    hardened "$build/sbin/rvxd" 'Flags:.* PIE' "$fortified" "$asserting" "$branches" || status=1
    hardened "$build/libexec/rvx-notify" 'Flags:.* PIE' "$fortified" "$branches" || status=1
    hardened "$build/libexec/rvxctl-whole" 'Flags:.* PIE' "$fortified" "$asserting" "$branches" || status=1
    hardened "$plugins/libpiRVX.so" "$kept" "$fortified" "$asserting" "$branches" || status=1
    hardened "$plugins/libpiRVXsim.so" "$kept" "$fortified" "$asserting" "$branches" || status=1
    hardened "$plugins/libzqKVT.so" "$kept" "$fortified" "$branches" || status=1
    hardened "$plugins/libzqKVTX.so" "$asserting" "$branches" || status=1
    hardened "$plugins/libzqPI.so" "$asserting" "$branches" || status=1
    return "$status"
}

man_pages() {
    find docs packaging -name '*.[1-8]' -print0 | xargs -0 -r mandoc -T lint -W warning
}

"$@"
