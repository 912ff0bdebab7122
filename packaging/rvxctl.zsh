#compdef rvxctl
# Completion of rvxctl in zsh: rvxctl itself tells what may stand there, and opens no disk for it.

_rvxctl() {
    local -a names
    if [[ $PREFIX = --simulate=* ]]; then
        compset -P '*='
        _files
    elif [[ ${words[CURRENT-1]} = --plugin ]]; then
        _files
    else
        names=(${(f)"$(rvxctl complete "${(@Q)words[2,CURRENT-1]}" "$PREFIX" 2>/dev/null)"})
        (( ${#names} )) && compadd -- "${names[@]}"
    fi
}

_rvxctl "$@"
