#!/usr/bin/env bash
# measure_test.sh ZYNREHEARSE ZYNREXEC INSTALL_DIR: the performance logs and metrics of a rehearsal, with an
# installation in the built-in directory, which only this test sees.
set -euo pipefail
export LC_ALL=C
rehearse=$1 rexec=$2 install_dir=$3
source "$(dirname "$0")/support/shell.sh"
own_root "$rehearse" "$install_dir" "" "$@"

cd "$top"
started=()
trap '((${#started[@]} == 0)) || kill -KILL "${started[@]}" 2>/dev/null || true' EXIT

# start NAME OPTION...: with its output and its ports in files of that name.
start() {
    "$rehearse" --port-file "$1.port" "${@:2}" >"$1.out" 2>"$1.err" &
    started+=($!)
    while [[ ! -s $1.port ]]; do kill -0 $!; done
}
# stop: the one that was started last.
stop() {
    kill "${started[-1]}"
    wait "${started[-1]}" || fail "exit status $?"
    unset 'started[-1]'
}
# refused WORDS: says so in its one line, and has not listened.
refused() {
    local status=0
    "$rehearse" --measure --port-file refused.port >refused.out 2>refused.err || status=$?
    [[ $status == 1 && ! -s refused.out && ! -e refused.port ]] || fail "$1: went on"
    diff refused.err - <<<"zynrehearse: cannot open the log \"group\": $1" || fail "$1: not told"
}

refused "code 15, there is no installation, or its configuration cannot be read"
"$rehearse" --install-tree "$install_dir" >tree.out 2>&1
refused "code 12, no event daemon can be reached"
mv "$install_dir/etc/policy/event.pol" .
refused "code 17, a policy of the installation cannot be loaded"
mv event.pol "$install_dir/etc/policy"

start side --events "$install_dir" --collect 0
use='<use>1</use>'
cat >"$install_dir/etc/zyn.conf" <<XML
<root>
  <cluster>
    <name>drill</name>
    <perf><log><group>$use</group><resource>$use</resource><monitor>$use</monitor></log></perf>
  </cluster>
  <statsd><mode>1</mode><server><host>127.0.0.1</host><port>$(<side.port)</port></server></statsd>
</root>
XML
cat >cluster.xml <<'XML'
<cluster>
  <group name='a,"b"'/>
  <group name="web" delay="1000"><resource name="disk"/></group>
  <monitor name="m1" category="SLOW" acttype="restart" delay="1000"/>
  <monitor name="m2" category="SLOW" acttype="restart" result="29"/>
  <scripts dir="."/>
</cluster>
XML
printf '#!/bin/sh\nexit 3\n' >check.sh
chmod +x check.sh
start server --measure --script -c cluster.xml -l 127.0.0.1,127.0.0.2,127.0.0.3 \
    -f 127.0.0.2=status:77 -f 127.0.0.3=close-before
port=$(<server.port)
request() {
    "$rexec" "$@" -p "$port" >>requests.out
}
request --notice -k SLOW &
request --failover -r disk
request --failover 'a,"b"'
request --failover $'no\nne'
for server in 127.0.0.2 127.0.0.3; do
    request --failover 'a,"b"' -h $server
done
printf 'no packet%067d' 0 >"/dev/tcp/127.0.0.1/$port"
request --script check.sh
request --script none
wait $!
request --clear m2
request --notice none
stop # what was measured is written
stop
((${#started[@]} == 0))

# expect_rows LOG: the header and the rows on standard input, with T for a time, and the response time as "slow"
# from 990 ms on, else as "fast".
expect_rows() {
    local file=$install_dir/log/$1.csv
    cat >expected
    sed -E 's,"[0-9/]{10} [0-9:]{8}\.[0-9]{3}",T,g; s/"(9[0-9]{2}|[0-9]{4,})"$/slow/; s/"[0-9]+"$/fast/' "$file" |
        diff - <(echo '"Date","Name","Action","Result","ReturnCode","StartTime","EndTime","ResponseTime(ms)"' &&
            cat expected) ||
        fail "$1.csv"
    ! sed -E '1d; s/.*,"(.*)","(.*)","[0-9]+"$/\1=\2/' "$file" | awk -F= '$1 > $2' | grep . || fail "$1.csv: ends first"
}
expect_rows group <<'CSV'
T,"disk","failover","success",,T,T,slow
T,"a,""b""","failover","success",,T,T,fast
T,"no\nne","failover","no such group",,T,T,fast
T,"a,""b""","failover","77",,T,T,fast
T,"a,""b""","failover","-1",,T,T,fast
CSV
expect_rows script <<'CSV'
T,"check.sh","exec","success","3",T,T,fast
T,"none","exec","no such script",,T,T,fast
CSV
expect_rows monitor <<'CSV'
T,"m1","notice","success",,T,T,slow
T,"m2","notice","execution failed",,T,T,slow
T,"m2","clear","success",,T,T,fast
CSV
sed -nE 's/.* metric zyn_monitor_response_time:([0-9]+)\|ms\|#ClusterName:drill,ServerName:[^,]+,ModuleType:monitor,MonitorName:(.*)$/"\2","\1"/p' \
    side.out | diff - <(sed -E '1d; s/^"[^"]*",("[^"]*").*,("[^"]*")$/\1,\2/' "$install_dir/log/monitor.csv") ||
    fail "metrics (first) and rows (second)"
[[ $(grep -cE ' (group|script|monitor)_perf\[[0-9:]+\] closed$' side.out) == 3 ]] || fail "logs that were not closed"

# An event daemon that ends meanwhile: that is told, once, and the server goes on.
start gone --events "$install_dir" --event-port 0
start lost --measure -c cluster.xml
kill "${started[0]}"
wait "${started[0]}"
started=("${started[1]}")
port=$(<lost.port)
request --failover 'a,"b"'
request --failover 'a,"b"'
stop
diff lost.err - <<<"zynrehearse: measurements are lost: code 12, no event daemon can be reached" || fail "a loss"

# All roles in one process, which takes its own records.
start all -l 127.0.0.1 --measure --events "$install_dir" --collect 0 --event-port 0
stop
[[ $(wc -l <all.port) == 3 && $(grep -c '_perf.* closed$' all.out) == 3 ]] || fail "all in one"

((failures == 0))
