#!/usr/bin/env bash
# zynconfig_test.sh ZYNCONFIG ZYNREHEARSE SOURCES: its table against the document, planted mistakes, files that are
# none, and its options.
set -euo pipefail
export LC_ALL=C
zynconfig=$1 rehearse=$2 sources=$3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failures=0

fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

echo "-- the table of keys"
awk -F ' *[|] *' -v OFS='\t' '/^\| `\/root\// { gsub(/`/, "", $2); print $2, $3, $5, $6, $7, $8 }' \
    "$sources/doc/configuration.md" | sed 's/`@INSTALL_DIR@`/none/; s/`""`/``/' >"$folder/document"
(($(wc -l <"$folder/document") > 50)) || fail "the table of the document was not found"
"$zynconfig" keys | diff - "$folder/document" || fail "zynconfig keys (first) and doc/configuration.md (second)"

"$rehearse" --install-tree "$folder/plain" >/dev/null
sed -i 's,<path>.*</path>,<path>/srv</path>,' "$folder/plain/etc/policy/all.pol"
root=$folder/root
etc=$root/etc

# fill TEXT: with {TEXT n} repeated and escapes carried out.
fill() {
    perl -e '$_ = shift; s/\{(\S+) (\d+)\}/$1 x $2/ge; s/\\n/\n/g; s/\\t/\t/g; s/\\x(..)/chr hex $1/ge; print' -- "$1"
}
# change PIECES: of the plain tree, in a new one.
change() {
    rm -rf "$root"
    cp -r "$folder/plain" "$root"
    local piece
    while IFS= read -r piece; do
        if [[ -z $piece ]]; then
            continue
        elif [[ $piece == -* ]]; then
            rm "$etc/${piece#-}"
        elif [[ $piece =~ ^([a-zA-Z./]+)\>(.*)$ ]]; then
            ln -sfn "${BASH_REMATCH[2]}" "$etc/${BASH_REMATCH[1]}"
        else
            mkdir -p "$(dirname "$etc/${piece%%=*}")"
            fill "${piece#*=}" >"$etc/${piece%%=*}"
        fi
    done < <(awk '{ gsub(/ ; /, "\n"); print }' <<<"$1")
}
# check STATUS: the findings into a file, without the directory and the line that counts them.
check() {
    local status=0
    timeout 20 "$zynconfig" --root "$root" check >"$folder/out" 2>"$folder/err" || status=$?
    [[ $status == "$1" ]] || fail "exit status $status, expected $1"
    [[ ! -s $folder/err ]] || fail "standard error: $(<"$folder/err")"
    ! grep -qP '[\x00-\x09\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xe2\x80\xae' "$folder/out" || fail "control characters come through"
    sed "\$d; s,$etc/,,g" "$folder/out" >"$folder/findings"
    grep -qE '^zynconfig: .*: [0-9]+ errors?, [0-9]+ warnings?, [0-9]+ infos?$' <(tail -n 1 "$folder/out") || fail "no last line"
}

echo "-- planted mistakes"
standalone='zyn.conf:0:0: error: the command runs standalone, with its built-in defaults: the cluster configuration is missing or cannot be read'
while IFS= read -r row; do
    mapfile -t fields < <(awk '{ gsub(/ [|] /, "\n"); print }' <<<"$row")
    change "${fields[0]}"
    check "${fields[1]}"
    for field in "${fields[@]:2}"; do
        [[ $field != "{STANDALONE}" ]] || field=$standalone
        fill "$field"
        echo
    done >"$folder/expected"
    diff "$folder/findings" "$folder/expected" || fail "found (first), expected (second) of: ${row:0:300}"
done < <(grep -v '^#' "$sources/tests/data/config_mistakes.txt")

echo "-- many at once, and each is counted"
change "zyn.conf=<root>\n<rexec>\n<cmdto>x</cmdto>\n<usedns>2</usedns>\n<nobody/>\n</rexec>\n<rexec/>\n</root> ; policy/rexec.pol=<root>"
printf '<root>%s</root>' "$(printf '<x/>%.0s' {1..999})" >"$etc/policy/statsd.pol"
check 2
for line in zyn.conf:{3,5,7} policy/rexec.pol:1; do
    (($(grep -c "^$line:" "$folder/findings") == 1)) || fail "$line was not found once"
done
(($(grep -c ^policy/statsd.pol "$folder/findings") == 200 + 1 + 5)) || fail "the findings of one file are not bounded"
grep -q ': 3 errors, 1001 warnings, 5 infos$' "$folder/out" || fail "counted $(tail -n 1 "$folder/out")"

echo "-- control characters, and places behind line 65535"
change "zyn.conf=<root>{\n 70000}<rexec><type>a\xc2\x9b31m\xe2\x80\xaec\x7fd\te</type>\n<cmdto>\xc2\x9b2J</cmdto></rexec></root>"
check 2
diff "$folder/findings" - <<'LINES' || fail "control characters"
zyn.conf:70001:8: warning: /root/rexec/type: "a?31m?c?d?e" holds a line end or tab, which is part of the value
zyn.conf:70002:1: error: /root/rexec/cmdto: "?2J" is no integer: taken is the built-in default, 180
LINES
"$zynconfig" get --root "$root" /root/rexec/type | grep -q '^  value     "a?31m?c?d?e"$' || fail "get: control characters"

mv "$root" "$folder/r"$'\xc1\x81\x1b'
("$zynconfig" check --root "$folder/r"$'\xc1\x81\x1b' || true) | grep -q "^$folder/r??/etc/zyn.conf:70002:1: error: " || fail "a directory's name"

echo "-- no file, and large ones"
change ""
rm "$etc/zyn.conf"
mkfifo "$etc/zyn.conf"
check 2
grep -qx 'zyn.conf:0:0: error: is no regular file' "$folder/findings" || fail "FIFO"
for command in "get /root/rexec/cmdto" list; do
    timeout 20 "$zynconfig" --root "$root" $command >"$folder/out" 2>"$folder/err" || fail "$command: exit status $?"
    grep -qx "zynconfig: in $root the command runs standalone: .*" "$folder/err" || fail "$command: standalone is not told"
done
rm "$etc/zyn.conf"
truncate -s 1T "$etc/zyn.conf"
check 2
{ echo "<root><rexec><type>" && head -c 3000000 /dev/zero | tr '\0' x && echo "</type></rexec></root>"; } >"$etc/zyn.conf"
check 2
(($(wc -c <"$folder/out") < 1000)) || fail "a long value is shown whole"
{ echo "<root><messages>" && seq -f '<r e="%.0f"/>' 100000 && echo "</messages></root>"; } >"$etc/zyn.conf"
check 0
rm -rf "$etc"
check 2
grep -q 'error: no installation is here' "$folder/out" || fail "no installation"

echo "-- what answers"
change "zyn.conf=<root>\n<rexec><cmdto>0x10</cmdto></rexec>\n<messages><rexec event=\"12\"><mail>2</mail></rexec></messages>\n<x>y</x></root>"
# shows STATUS PATH LINE...
shows() {
    local status=0
    "$zynconfig" get --root "$root" "$2" >"$folder/out" 2>"$folder/err" || status=$?
    [[ $status == "$1" ]] || fail "get $2: exit status $status"
    diff <(sed "s,$etc/,," "$folder/out") <(printf '%s\n' "$2" "${@:3}") || fail "get $2"
}
shows 0 /root/rexec/cmdto '  value     "0x10"' '  from      zyn.conf:2:8 (cluster configuration)' '  integer   16' \
    '  taken     16' '  range     5 to 999, else the nearer end' '  read by   command'
shows 0 /root/messages/rexec@12/mail '  value     "2"' '  from      zyn.conf:3:29 (cluster configuration)' \
    '  integer   2' '  taken     2' '  range     0, others' '  read by   log'
shows 1 /root/messages/rexec@13/mail '  from      built-in default' '  taken     none' '  range     0, others' '  read by   log'
shows 0 /root/cluster/event/msq/mode/dir '  value     "0755"' '  from      policy/event.pol:56:11 (policy event)' \
    '  integer   493' '  taken     0755' '  range     0 to 0777, octal' '  read by   log'
shows 0 /root/x '  value     "y"' '  from      zyn.conf:4:1 (cluster configuration)' '  integer   no' \
    '  taken     by nobody: no module reads this key'
shows 1 /root/z '  from      no file has it' '  taken     by nobody: no module reads this key'
"$zynconfig" list --root "$root" >"$folder/list"
diff <(sed 's/ = .*//; s,/monitor_response_time/,/%s/,; /@/d' "$folder/list") <("$zynconfig" keys | cut -f1 | grep -v @) || fail "list shows other keys than the table"
grep -qxF "/root/messages/rexec@12/mail = 2	$etc/zyn.conf:3:29" "$folder/list" || fail "list: an event's setting"
grep -qxF "/root/event/syslog/%s = 6	built-in default" "$folder/list" || fail "list: a default"
diff <("$zynconfig" list --root "$root" metrics) <(grep ^/root/statsd/ "$folder/list") || fail "list of a module"
(cd "$folder" && "$zynconfig" get --bare --root root/../root/ /root/all/path) | grep -qx /srv || fail "a relative root"

# bare VALUE PATH CONTENT: what a script gets.
bare() {
    change "zyn.conf=<root>$3</root>"
    "$zynconfig" get --bare --root "$root" "$2" >"$folder/out" || true
    [[ $(<"$folder/out") == "$1" ]] || fail "get --bare $2: $(<"$folder/out")"
}
bare rexec /root/rexec/type ""
bare rexec /root/rexec/type "<rexec><type>{x 32}</type></rexec>"
bare "a b" /root/rexec/type "<rexec><type> a b </type></rexec>"
bare 77 /root/rexec/log/size "<rexec><log><size>-1</size></log></rexec><log><log><size>77</size></log></log>"
bare 70000 /root/cluster/trns/port "<cluster><trns><port>70000</port></trns></cluster>"
bare "" /root/cluster/trns/port "<cluster><trns><port>no</port></trns></cluster>"

echo "-- a list that ends"
change ""
{ echo '<root><event><syslog>'; seq -f '<a%.0f/>' 300000; echo '</syslog></event></root>'; } >"$etc/zyn.conf"
timeout 30 "$zynconfig" --root "$root" list event >"$folder/out" || fail "exit status $?"
[[ $(grep -c '^/root/event/syslog/a' "$folder/out") == 1000 ]] || fail "not the first thousand are listed"
grep -qxF '/root/event/syslog/%s: no more of these are listed' "$folder/out" || fail "the end is not told"

echo "-- options"
# refused COMMAND: with exit status 3, and a word on standard error.
refused() {
    local status=0
    eval "$1" >"$folder/out" 2>"$folder/err" || status=$?
    [[ $status == 3 && -s $folder/err ]] || fail "$1: exit status $status"
}
refused '"$zynconfig"'
refused '"$zynconfig" look'
refused '"$zynconfig" get'
refused '"$zynconfig" get cmdto'
refused '"$zynconfig" get /root'
refused '"$zynconfig" get /root//x'
refused '"$zynconfig" get "/root/$(printf "%*s" 2000 x)"'
refused '"$zynconfig" list nothing'
refused '"$zynconfig" names nothing'
refused '"$zynconfig" check --root ""'
refused '"$zynconfig" check --root "/$(printf "%*s" 1000 x)"'
refused '("$zynconfig" keys >/dev/full)'
refused '("$zynconfig" keys >&-)'
"$zynconfig" --help | grep -q '^Exit status: ' || fail "--help"
("$zynconfig" list --root "$root" || echo "$?" >"$folder/status") | head -n 1 >"$folder/out" || true
[[ -s $folder/out ]] || fail "a pipe that is closed early"

((failures == 0))
