# Completion of rvxctl in fish: rvxctl itself tells what may stand there, and opens no disk for it.

function __rvxctl_complete
    set -l before (commandline -opc)
    set -l current (commandline -ct)
    if string match -q -- '--simulate=*' $current
        for file in (__fish_complete_path (string replace -- '--simulate=' '' $current))
            echo -- --simulate=$file
        end
    else if test "$before[-1]" = --plugin
        __fish_complete_path $current
    else
        rvxctl complete $before[2..] "$current" 2>/dev/null
    end
end

complete -c rvxctl -f -a '(__rvxctl_complete)'
