#!/usr/bin/env bash
# collect_test.sh ZYNREHEARSE: the metrics collector by its datagrams, and the options that go with it.
set -euo pipefail
export LC_ALL=C
rehearse=$1
folder=$(mktemp -d)
collector=
failures=0

cleanup() {
    [[ -z $collector ]] || kill -KILL "$collector" 2>/dev/null || true
    rm -rf "$folder"
}
trap cleanup EXIT

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# next: the collector's next line, without the time of day.
next() {
    read -r -t 20 line <&3 || line="(none)"
    [[ $line =~ ^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}\ (.*)$ ]] && line=${BASH_REMATCH[1]}
    :
}

mkfifo "$folder/out"
"$rehearse" --collect 0 --port-file "$folder/port" >"$folder/out" &
collector=$!
exec 3<"$folder/out"
next
port=${line#metrics at UDP port } # the first line: no data transfer server listens
ipv6=yes
[[ $port != *", of IPv4 only" ]] || ipv6= port=${port%%,*}
while [[ ! -s $folder/port ]] && kill -0 "$collector"; do :; done
[[ $(<"$folder/port") == "$port" ]] || fail "the port file"

# send ADDRESS BYTES: one datagram, also where there is a line end in it.
send() {
    # shellcheck disable=SC2059
    printf "$2" | dd bs=9000 iflag=fullblock status=none >"/dev/udp/$1/$port"
}

# Datagrams in the notation of printf, and what is told of them.
long=$(printf '%1000s' '' | tr ' ' n)
while IFS=' ' read -r bytes told; do
    [[ -n $bytes && $bytes != \#* ]] || continue
    send 127.0.0.1 "$bytes"
    next
    [[ $line == "$told" ]] || fail "${bytes:0:40}: ${line:0:40} in place of ${told:0:40}"
done <<ROWS
# What the emitter writes, and what other emitters do.
a:0|c metric a:0|c
a.b_c:-2147483648|g metric a.b_c:-2147483648|g
a:1.5|h|@0.25 metric a:1.5|h|@0.25
a:1|ms|@0.00|#ClusterName:x,MonitorName:y metric a:1|ms|@0.00|#ClusterName:x,MonitorName:y
a:1|s|#tag metric a:1|s|#tag
a:1|ms\n metric a:1|ms
$long:1|c|#$long metric $long:1|c|#$long
# UTF-8 stays, a terminal's controls do not; a line end would begin another value.
a:1|ms|#n:\303\274 metric a:1|ms|#n:$(printf '\303\274')
a:1|c\nb:1|c malformed a:1|c\nb:1|c
a:1|c|#x:\ny malformed a:1|c|#x:\ny
# Parts that are missing, wrong, in the wrong order or too many.
|c malformed |c
a|c malformed a|c
:1|c malformed :1|c
a:|c malformed a:|c
a:x|c malformed a:x|c
a:1x|c malformed a:1x|c
a:nan|c malformed a:nan|c
a:inf|c malformed a:inf|c
a:1 malformed a:1
a:1| malformed a:1|
a:1|m malformed a:1|m
a:1|c|@ malformed a:1|c|@
a:1|c|@1.01 malformed a:1|c|@1.01
a:1|c|@-0.5 malformed a:1|c|@-0.5
a:1|c|# malformed a:1|c|#
a:1|c|#x,,y malformed a:1|c|#x,,y
a:1|c|#x|y malformed a:1|c|#x|y
a:1|c|#x|@0.5 malformed a:1|c|#x|@0.5
a:1|c|@0.5|@0.5 malformed a:1|c|@0.5|@0.5
a:1|c|x malformed a:1|c|x
# Longer than any that is sent: it is cut, and what is left would be one.
a:1|c|#$long$long$long malformed a:1|c|#${long}${long}${long:0:182}
ROWS
if [[ -n $ipv6 ]]; then
    send ::1 'six:6|g'
    next
    [[ $line == "metric six:6|g" ]] || fail "by IPv6: $line"
fi

# Two at one port; what has come before the end is told.
status=0
"$rehearse" --collect "$port" >"$folder/second" 2>&1 || status=$?
[[ $status == 1 ]] && grep -q "cannot bind UDP port $port" "$folder/second" || fail "a port that is taken"
kill -STOP "$collector"
send 127.0.0.1 'last:1|c'
kill -TERM "$collector"
kill -CONT "$collector"
next
[[ $line == "metric last:1|c" ]] || fail "at the end: $line"
wait "$collector" || fail "exit status $?"
collector=

while read -r -a options; do
    status=0
    timeout 10 "$rehearse" "${options[@]}" >"$folder/refused" 2>&1 || status=$?
    [[ $status == 2 ]] || fail "${options[*]}: exit status $status"
done <<ROWS
--collect
--collect 65536
--collect 0 --measure
--collect 0 --script
--collect 0 --install-tree $folder/tree
--events $folder --set-level a=1 --collect 0
--events $folder --measure
ROWS

((failures == 0))
