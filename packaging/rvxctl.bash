# shellcheck shell=bash
# Completion of rvxctl's commands, options and, as root, of the objects' names.

_rvxctl_objects() {
    [ "$(id -u)" = 0 ] || return 0
    rvxctl "$@" list 2>/dev/null | awk 'NR > 1 && NF > 1 { print $1 }'
}

_rvxctl() {
    local current=${COMP_WORDS[COMP_CWORD]} word before='' path='' offered=''
    local everywhere='--json --simulate --save --plugin --trace --no-color --help'
    local consent='--yes --dry-run'
    COMPREPLY=()
    if [ "${COMP_WORDS[COMP_CWORD - 1]}" = --plugin ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        # Neither options nor their values (--simulate=machine comes in three words).
        case $before$word in -* | =* | *[0-9./]*) ;; *) path+=" $word" ;; esac
        before=''
        [ "$word" != = ] || before='='
    done
    case $path in
        '') offered='topology status plugin adapter disk array operations prop levels events spare rebuild rescan playground help --version' ;;
        ' plugin' | ' adapter') offered=show ;;
        ' disk') offered='list show' ;;
        ' array') offered='list show create delete watch' ;;
        ' spare') offered='add release' ;;
        ' rebuild') offered='start cancel' ;;
        ' prop') offered='get set' ;;
        ' prop set') offered=plugin ;;
        ' prop set plugin') offered=poll-interval ;;
        ' status') offered=--watch ;;
        ' events') offered='--follow --json-lines' ;;
        ' array create'*) offered="--level --stripe --wait $consent $(_rvxctl_objects disk)" ;;
        ' array delete') offered="--last --all $consent $(_rvxctl_objects array)" ;;
        ' spare add'*) offered="--wait $consent $(_rvxctl_objects disk) $(_rvxctl_objects array)" ;;
        ' spare release') offered="$consent $(_rvxctl_objects disk)" ;;
        ' rebuild start') offered="--wait $consent $(_rvxctl_objects array)" ;;
        ' rebuild cancel') offered="$consent $(_rvxctl_objects array)" ;;
        ' array show' | ' array watch') offered=$(_rvxctl_objects array) ;;
        ' disk show') offered=$(_rvxctl_objects disk) ;;
        ' operations' | ' prop get') offered="plugin adapter $(_rvxctl_objects disk) $(_rvxctl_objects array)" ;;
    esac
    case ${COMP_WORDS[COMP_CWORD - 1]} in
        --level) offered=$(rvxctl --simulate levels 2>/dev/null | awk 'NR > 1 { print $NF }') everywhere='' ;;
        --stripe) offered=$(rvxctl --simulate levels 2>/dev/null | sed 's/ KiB/\n/g' | grep -oE '[0-9]+$' | sort -nu) everywhere='' ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$offered $everywhere" -- "$current")
}

complete -F _rvxctl rvxctl
