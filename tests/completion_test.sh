#!/usr/bin/env bash
# completion_test.sh BIN SOURCES INSTALL_DIR: what bash, zsh and fish offer, with an installation and an /etc/hosts that
# only this test sees; tests/data/completions.txt has the lines. Nothing may be asked of a network meanwhile.
set -euo pipefail
export LC_ALL=C
bin=$1 sources=$2 install_dir=$3
source "$(dirname "$0")/support/shell.sh"
for tool in zsh fish strace; do
    type -P $tool >/dev/null || skip "there is no $tool; scripts/test installs it"
done
own_root "$bin" "$install_dir" "" "$@"


mkdir "$top/home" "$top/cwd"
cd "$top/cwd"
touch user.log
export HOME=$top/home PATH=$bin:$PATH
"$bin/zynrehearse" --install-tree "$install_dir" >/dev/null 2>&1
cat >"$install_dir/etc/zyn.conf" <<XML
<root>
  <group name="web"><resource name="disk1"/></group>
  <group name="db"><resource name="disk2"/></group>
  <group name="two words"/><group name="-dash"/><group name="\$(touch $top/struck)"/>
  <group name="\`touch $top/struck\`"/><group name="q'(touch $top/struck)"/><group name="web&#10;-o"/>
  <group name="a&#9;b"/><group/>
  <monitor name="m1" category="NET" keyword="eth0"/>
  <monitor name="m2" category="DISK"/>
  <server name="srv1"/>
</root>
XML
printf '%s\n' '127.0.0.1 localhost # comment' '192.0.2.7 node-a.example node-a' 'fe80::7	node-b' \
    "192.0.2.8 \$(touch\${IFS}$top/struck) \`touch\${IFS}$top/struck\` (touch\${IFS}$top/struck) ;'\"" >"$top/hosts"
mount --bind "$top/hosts" /etc/hosts
mkdir "$install_dir/scripts" "$install_dir/scripts/folder"
touch "$install_dir/scripts/"{run.sh,check.sh,data.txt}
touch "$install_dir/scripts/\$(touch struck).sh"
chmod +x "$install_dir/scripts/"*.sh

# What the programs have themselves.
options_of() {
    "$@" --help | grep -oE '^  -[^ ]+' | tr ', ' '\n\n' | grep . || true
}
declare -A own=(
    [@zynrexec]=$(grep -oP '^ *\{"\K-[^"]*(?=", take_)' "$sources/src/linux/server/command/rexec/src/rexec/option.cpp")
    [@zynrehearse]=$(options_of zynrehearse)
    [@faults]=$(zynrehearse --help | sed -n '/^Faults/,/^Exit/s/^  \([a-z-]*\)\(\[:N\]\|\(:\)N\)\{0,1\} .*/\1\3/p')
    [@zynconfig]=$(options_of zynconfig)
    [@get]=$(options_of zynconfig; options_of zynconfig get)
    [@kinds]=$(zynconfig names x 2>&1 | sed 's/.*there are //' | tr -d ,)
    [@addresses]="127.0.0.1 192.0.2.7 192.0.2.8 fe80::7 localhost node-a node-a.example node-b srv1"
)
for name in "${!own[@]}"; do
    (($(wc -w <<<"${own[$name]}") >= 3)) || fail "no words of $name were found"
done
(($(wc -l <<<"${own[@zynrexec]}") == 11)) || fail "the options of zynrexec were not found"

# sorted WORDS: in one line.
sorted() {
    tr -s ' \n' '\n\n' <<<"$1" | grep . | sort -u | paste -sd ' ' || true
}

grep -v '^#' "$sources/tests/data/completions.txt" >"$top/rows"
cut -d'|' -f1 "$top/rows" >"$top/lines"
declare -A shells=([bash]="bash --norc --noprofile" [zsh]="zsh -f" [fish]="fish --no-config")
for shell in bash zsh fish; do
    strace -f -o "$top/calls" -e trace=network,openat ${shells[$shell]} "$sources/tests/support/complete.$shell" \
        "$sources/completions" <"$top/lines" >"$top/offered" || fail "$shell: exit status $?"
    while IFS='|' read -r line words; do
        awk -v line="$line" 'BEGIN { RS = ""; FS = "\n" } $1 == line { for (i = 2; i <= NF; ++i) print $i; found = 1 }
            END { if (!found) print "(nothing came)" }' "$top/offered" | sed 's/.*[,=]\(.\)/\1/' >"$top/words"
        [[ $words != @* ]] || words=${own[$words]}
        diff <(sorted "$(<"$top/words")") <(sorted "$words") ||
            fail "$shell: \"$line\" offers the first, the second was expected"
    done <"$top/rows"
    grep -q execve "$top/calls" || grep -q openat "$top/calls" || fail "$shell: nothing was traced"
    [[ ! -e $top/struck && ! -e $top/cwd/struck ]] || fail "$shell: a name was run"
    grep -q '"/etc/hosts"' "$top/calls" || fail "$shell: /etc/hosts was not read"
    ! grep -E 'AF_INET|AF_NETLINK|resolv\.conf|known_hosts' "$top/calls" || fail "$shell: asked the network"
done

((failures == 0))
