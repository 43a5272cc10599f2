#!/usr/bin/env bash
# zynconfig_command_test.sh BIN SOURCES INSTALL_DIR: the values that zynconfig gives against those that the command
# works with, by its user log and by what reaches a server, with an installation that only this test sees.
set -euo pipefail
export LC_ALL=C
bin=$1 sources=$2 install_dir=$3
source "$(dirname "$0")/support/shell.sh"
own_root "$bin" "$install_dir" --net "$@"
ip link set lo up 2>/dev/null || skip "no loopback interface here"

cd "$top"
server=
trap '[[ -z $server ]] || kill -KILL $server 2>/dev/null || true' EXIT

"$bin/zynrehearse" --install-tree "$install_dir" >/dev/null
cp -r "$install_dir/etc" plain
echo '<cluster><scripts><script name="x"/></scripts></cluster>' >cluster.xml
"$bin/zynrehearse" -c cluster.xml -p 0 --port-file port >journal &
server=$!
while [[ ! -s port ]]; do kill -0 $server; done

# taken KEY: what the command works with.
taken() {
    local value
    if [[ $1 == /root/rexec/maxconnum ]]; then
        local list=127.0.0.9 number=0
        while "$bin/zynrexec" --script x -p 1 -h "$list" >/dev/null; do
            list+=,127.0.0.9
            number=$((number + 1))
        done
        echo "$number"
        return
    fi
    "$bin/zynrexec" --script x -o "$top/log" >/dev/null
    case $1 in
    */cmdto)
        "$bin/zynrexec" --script x -p "$(<port)" >/dev/null
        grep -oP 'script .*timeout=\K\d+' journal | tail -n 1
        ;;
    */port) grep -oP ' port:\K-?\d+' log ;;
    */usedns) grep -oP ' usedns:\K-?\d+' log ;;
    */recv | */send) grep -oP "[ ,]${1##*/} size:\K-?\d+" log ;;
    */max) grep -oP 'max packet size:\K-?\d+' log ;;
    */connect/timeout) grep -oP 'connect retry:.*timeout:\K-?\d+' log ;;
    esac
}

rows=0
while IFS= read -r row; do
    mapfile -t fields < <(awk '{ gsub(/ [|] /, "\n"); print }' <<<"$row")
    rm -rf "$install_dir/etc"
    cp -r plain "$install_dir/etc"
    while IFS= read -r piece; do
        case $piece in
        '' | ' ') ;;
        -*) rm "$install_dir/etc/${piece#-}" ;;
        *)
            mkdir -p "$(dirname "$install_dir/etc/${piece%%=*}")"
            printf '%b' "${piece#*=}" >"$install_dir/etc/${piece%%=*}"
            ;;
        esac
    done < <(awk '{ gsub(/ ; /, "\n"); print }' <<<"${fields[0]}")
    command=$(taken "${fields[1]}" || true)
    tool=$("$bin/zynconfig" get --bare "${fields[1]}" 2>told || true)
    [[ $command == "${fields[2]}" ]] || fail "the command takes \"$command\": $row"
    [[ $tool == "${fields[2]}" ]] || fail "zynconfig says \"$tool\": $row"
    grep -q 'Cannot exec func on standalone mode' log 2>/dev/null && alone=yes || alone=
    grep -q 'runs standalone' told && said=yes || said=
    [[ $alone == "$said" ]] || fail "the command runs standalone (\"$alone\"), zynconfig says so (\"$said\"): $row"
    rm -f log
    rows=$((rows + 1))
done < <(grep -v '^#' "$sources/tests/data/config_in_force.txt")
((rows > 20)) || fail "only $rows rows"

((failures == 0))
