#!/usr/bin/env bash
# events_test.sh ZYNREHEARSE: the life of an event daemon. What it makes and removes, what it takes over from one
# that was killed, and which options go together.
set -euo pipefail
export LC_ALL=C
rehearse=$1
folder=$(mktemp -d)
tree=$folder/tree
daemon=
failures=0

cleanup() {
    [[ -z $daemon ]] || kill -KILL "$daemon" 2>/dev/null || true
    ipcrm -M "$(key 65 event.key)" 2>/dev/null || true
    ipcrm -Q "$(key 63 msgq.key)" 2>/dev/null || true
    rm -rf "$folder"
}

# expect NAME COMMAND...
expect() {
    "${@:2}" || {
        echo "FAILED: $1"
        failures=$((failures + 1))
    }
}

# key PROJECT FILE: what ftok makes of a key file; the project in hexadecimal.
key() {
    local device inode
    read -r device inode < <(stat -c '%d %i' "$tree/work/ipc/$2")
    printf '0x%s%02x%04x' "$1" $((device & 255)) $((inode & 65535))
}
# made: which of socket, table and queue there are.
made() {
    local found=
    [[ ! -S $tree/tmp/sockevent ]] || found+=socket,
    ! ipcs -m | grep -q "^$(key 65 event.key) " || found+=table,
    ! ipcs -q | grep -q "^$(key 63 msgq.key) " || found+=queue
    echo "$found"
}

# start OPTION...: returns when the daemon is ready.
start() {
    rm -f "$folder/out"
    mkfifo "$folder/out"
    "$rehearse" --events "$tree" "$@" >"$folder/out" &
    daemon=$!
    exec 3<"$folder/out"
    told=
    while [[ $told != *"logs in $tree/log"* ]] && read -r line <&3; do
        told+=$line$'\n'
    done
}


# refused STATUS OPTION...
refused() {
    local status=0
    "$rehearse" "${@:2}" >"$folder/refused" 2>&1 || status=$?
    expect "${*:2}: exit status" test $status = "$1"
}

mkdir -p "$tree/work/ipc"
touch "$tree/work/ipc/event.key" "$tree/work/ipc/msgq.key"
trap cleanup EXIT

echo "-- what is made goes"
refused 1 --events "$tree"
mkdir "$tree/tmp"
for signal in TERM INT; do
    start --event-queue
    expect "made" test "$(made)" = socket,table,queue
    refused 1 --events "$tree"
    expect "says why" grep -q "sockevent is read by another event daemon" "$folder/refused"
    expect "that one made and removed nothing" test "$(made)" = socket,table,queue
    kill "-$signal" "$daemon"
    status=0
    wait "$daemon" || status=$?
    expect "SIG$signal" test $status = 0
    expect "nothing is left" test -z "$(made)"
done

echo "-- one was killed"
start --event-queue
kill -KILL "$daemon"
wait "$daemon" 2>/dev/null || true
expect "all is left" test "$(made)" = socket,table,queue
refused 1 --events "$tree" --set-level rexec=8
expect "no daemon" grep -q "no event daemon reads" "$folder/refused"
start --event-queue
expect "tells what was there" test "$(grep -c 'which was there and stays\|the level table was there and stays' <<<"$told")" = 2
kill "$daemon"
wait "$daemon"
expect "what was there stays" test "$(made)" = table,queue
daemon=
echo text >"$tree/tmp/sockevent"
refused 1 --events "$tree"
expect "a file in place of the socket stays" test "$(<"$tree/tmp/sockevent")" = text

echo "-- the queue goes while it is read"
ipcrm -M "$(key 65 event.key)" -Q "$(key 63 msgq.key)"
rm "$tree/tmp/sockevent"
start --event-queue
queue=$(key 63 msgq.key)
ipcrm -Q "$queue"
read -r line <&3
expect "made anew" grep -q " queue was removed; made anew, events at queue [0-9]*$" <<<"$line"
expect "made again" test "$(made)" = socket,table,queue
mv "$tree/work/ipc" "$tree/work/kept"
touch "$tree/work/ipc"
ipcrm -Q "$queue"
read -r line <&3
expect "not made anew" grep -q " queue was removed, and is read no more: cannot make a key in .*/ipc: Not a dir" <<<"$line"
rm "$tree/work/ipc"
mv "$tree/work/kept" "$tree/work/ipc"
kill "$daemon"
wait "$daemon"
expect "ends, and nothing is left" test -z "$(made)"
daemon=

echo "-- options"
refused 2 --events "$tree" --port 1
refused 2 --events "$tree" --port-file "$folder/port"
refused 2 --event-port 0
refused 2 --event-queue
refused 2 --set-level rexec=8
refused 2 --set-level rexec=8 --events "$tree" --quiet
refused 2 --install-tree "$tree" --events "$tree"
refused 1 --events "$folder/none"
rm -f "$tree/tmp/sockevent"
start --listen 127.0.0.1 --event-port 0 --port-file "$folder/port"
expect "listens" grep -q "^listening on 127.0.0.1 port [0-9]*$" <<<"$told"
while [[ ! -s $folder/port ]] && kill -0 "$daemon"; do :; done
expect "both ports" diff "$folder/port" <(sed -n 's/.* port \([0-9]*\)$/\1/p' <<<"$told")
kill "$daemon"
wait "$daemon"
daemon=

((failures == 0))
