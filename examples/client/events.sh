#!/bin/sh
# events.sh [SOCKET]: tells how the machine is and then what happens. When rvxd was away for a while, it goes on where it was.
socket=${1:-/run/rvx/rvxd-ro.sock}
place=$(mktemp) || exit
trap 'rm -f "$place"' EXIT
trap 'exit 1' INT TERM

get() { curl --silent --fail --no-buffer --unix-socket "$socket" "$@"; }
field() { sed -n "s/.*\"$1\": *\"\([^\"]*\)\".*/\1/p" | head -n 1; }

state=$(get http://localhost/v1/state) || { echo "rvxd does not answer at $socket" >&2; exit 2; }
echo "$state" | field headline
echo "$state" | field cursor >"$place"

while true; do
    get --header 'Accept: text/event-stream' --header "Last-Event-ID: $(cat "$place")" http://localhost/v1/events |
        while IFS= read -r line; do
            case $line in
            'event: '*) kind=${line#event: } id='' data='' ;;
            'id: '*) id=${line#id: } ;;
            'data: '*) data=${line#data: } ;;
            '')
                [ "$kind" = event ] && echo "$data" | sed -n 's/.*"text": *"\(\([^"\\]\|\\.\)*\)".*/\1/p'
                [ "$kind" = reset ] && echo "events were lost" && id=$(echo "$data" | field cursor)
                [ -n "$id" ] && echo "$id" >"$place"
                kind='' id='' ;;
            esac
        done
    sleep 1
done
