# shellcheck shell=bash
# Completion of rvxctl in bash: rvxctl itself tells what may stand there, and opens no disk for it.

_rvxctl() {
    local word last='' value words=() glue=''
    # "--level=raid1" comes in three words.
    for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
        if [[ $word = = || $glue ]]; then
            words[${#words[@]} - 1]+=$word
            glue=$([[ $word != = ]] || echo yes)
        else
            words+=("$word")
        fi
    done
    last=${words[${#words[@]} - 1]}
    value=${last#--simulate=}
    if [[ $last = --simulate=* || ${words[${#words[@]} - 2]-} = --plugin ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "${value/#\~/$HOME}")
        return
    fi
    mapfile -t COMPREPLY < <(rvxctl complete "${words[@]}" 2>/dev/null)
    # What stands before the sign stays.
    [[ $last != -*=* ]] || COMPREPLY=("${COMPREPLY[@]#*=}")
}

complete -F _rvxctl rvxctl
