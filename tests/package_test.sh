#!/usr/bin/env bash
# package_test.sh SOURCES BUILD INSTALL_DIR VERSION: makes the Debian packages twice, holds them
# against the rules of Debian and each other, and installs, upgrades, removes and purges them with the system's
# own dpkg in a throw-away root: an overlay of this machine's, in memory, which only this test sees.
set -euo pipefail
export LC_ALL=C
sources=$1 build=$2 install_dir=$3 version=$4
etc_opt=/etc${install_dir}
unset DESTDIR ZYNREHEARSE_OPTIONS

source "$(dirname "$0")/support/shell.sh"

for tool in dpkg-deb dpkg-shlibdeps lintian man strace systemd-analyze; do
    command -v "$tool" >/dev/null || skip "no $tool"
done

no_root=
if [[ ${5-} != inside ]]; then
    if ((EUID != 0)); then
        no_root="only root can install into a throw-away root"
    elif ! unshare --mount true 2>/dev/null; then
        no_root="no private mount namespace is allowed here"
    else
        exec unshare --mount bash "$0" "$@" inside
    fi
fi

folder=$(mktemp -d)
root=$folder/memory/root
server= # the process id of the tracer of a rehearsal server
ended() {
    [[ -z $server ]] || { kill -KILL "$server" && wait "$server"; } 2>/dev/null || true
    umount --recursive --lazy "$folder/memory" 2>/dev/null || true
    rm -rf --one-file-system "$folder"
}
trap ended EXIT

echo "-- made twice, under other circumstances"
# make_in DIRECTORY
make_in() {
    SOURCE_DATE_EPOCH=1700000000 "$sources/packaging/pack" "$build" "$folder/$1" >"$folder/log" 2>&1 ||
        { cat "$folder/log"; exit 1; }
}
(umask 002 && TZ=UTC make_in first)
(umask 077 && TZ=Asia/Tokyo make_in second)
architecture=$(dpkg --print-architecture)
command=$folder/first/zynrexec_${version}_$architecture.deb
rehearsal=$folder/first/zynrehearse_${version}_$architecture.deb
for file in "$command" "$rehearsal"; do
    expect "same bytes" cmp "$file" "$folder/second/${file##*/}"
    mkdir "$folder/tree"
    dpkg-deb -R "$file" "$folder/tree"
    expect "as old as told" test -z "$(find "$folder/tree" -type f ! -path '*/DEBIAN*' ! -newermt @1699999999 -o \
        -type f ! -path '*/DEBIAN*' -newermt @1700000000)"
    expect "nothing of the build's place" test -z "$(grep -rlF "$sources" "$folder/tree")"
    # Whatever lies in /etc is the operator's, and dpkg has to know.
    expect "configuration files" diff <(cd "$folder/tree" && find etc -type f -printf '/%p\n' | sort) \
        <(sort "$folder/tree/DEBIAN/conffiles")
    expect "version of the change log" test "$version" = \
        "$(zcat "$folder"/tree/usr/share/doc/*/changelog.gz | dpkg-parsechangelog -l- -S Version)"
    rm -r "$folder/tree"
done
for program in zynrexec zynrehearse; do
    # Debug information decides the build ID, which stays when it is stripped.
    expect_not "$program names its checkout" grep -qF "$sources" "$build/bin/$program"
done

echo "-- lintian"
# Overrides that override nothing are told, too.
lintian --allow-root --pedantic --display-experimental --display-info \
    --fail-on error,warning,info,pedantic,experimental,override "$command" "$rehearsal" >"$folder/log" 2>&1 ||
    { cat "$folder/log"; fail "lintian"; }
expect "not a word" test ! -s "$folder/log"

((failures == 0)) || exit 1
[[ -z $no_root ]] || skip "made and checked, not installed: $no_root"

echo "-- a throw-away root"
mkdir "$folder/memory"
mount -t tmpfs none "$folder/memory" || skip "made and checked, not installed: no file system in memory here"
mkdir "$folder"/memory/{upper,work,root}
mount -t overlay none -o "lowerdir=/,upperdir=$folder/memory/upper,workdir=$folder/memory/work" "$root" 2>/dev/null ||
    skip "made and checked, not installed: no overlay of / is allowed here"
mount --rbind /proc "$root/proc"
mount --rbind /dev "$root/dev"
in_root() {
    env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive \
        chroot "$root" "$@" </dev/null
}
in_root dpkg --version >/dev/null 2>&1 || skip "made and checked, not installed: the overlay has no dpkg"
# Nothing of this machine's own installations, and everything unpacked, documents too.
in_root dpkg --purge zynrexec zynrehearse >/dev/null 2>&1
rm -rf "$root$install_dir" "$root$etc_opt" "$root"/etc/dpkg/dpkg.cfg.d/* "$root"/usr/lib{,64}/libzynxml.so.1.0
mkdir -p "$root/run/systemd/system" "$root/packages"
cp "$command" "$rehearsal" "$root/packages"
command=/packages/${command##*/} rehearsal=/packages/${rehearsal##*/}
# What the maintainer scripts would tell the service manager. This root has none.
printf '#!/bin/sh\necho "$*" >>/told\n' >"$root/usr/bin/deb-systemd-invoke"

# told EXPECTED: what the service manager was told since the last call.
told() {
    touch "$root/told"
    expect "the service manager is told: $1" diff <(printf "$1") "$root/told"
    rm "$root/told"
}

# install_as STATUS NAME DPKG_ARGUMENT...: without anybody who could answer a question.
install_as() {
    local status=0
    in_root dpkg "${@:3}" >"$folder/log" 2>&1 || status=$?
    ((status == $1)) || { cat "$folder/log"; fail "$2: exit status $status"; }
}

# Files and links that were made or changed in the root, or removed ("c"), but for what keeps books about all
# packages. Directories that any package may share, and that dpkg takes along when they are empty, do not count.
changed() {
    (cd "$folder/memory/upper" && find . \( -path ./var/lib/dpkg -o -path ./var/log -o -path ./var/cache \
        -o -path ./run -o -path ./etc/ld.so.cache \) -prune -o -not -type d -printf '%y %P\n' |
        grep -vxE 'c (etc/opt|opt)' | sort)
}
before=$(changed)

echo "-- refused over an installation of another kind"
for make in "mkdir" "ln -s /srv"; do
    mkdir -p "$root$install_dir"
    $make "$root$install_dir/messages"
    install_as 1 "over an installation: $make" --install "$command"
    expect "says why" grep -qx "zynrexec: $install_dir/messages was not made by this package." "$folder/log"
    rm -r "${root:?}$install_dir"
done
expect "nothing is changed" diff <(echo "$before") <(changed)

echo "-- installed"
install_as 0 "install" --install "$command" "$rehearsal"
expect_not "no warning" grep -i warning "$folder/log"
expect "as packed" test -z "$(in_root dpkg --verify zynrexec zynrehearse)"
expect "nothing is enabled" test -z "$(find "$root/etc/systemd" "$root/etc/rc"* -name '*zynrehearse*')"
told 'daemon-reload\n'
expect "found by everybody" test "$(in_root setpriv --reuid 65534 --clear-groups zynrexec --help | sed -n 1p)" = \
    "$("$build/bin/zynrexec" --help | sed -n 1p)"
expect "the install directory is filled in" grep -qF "<path>$install_dir</path>" "$root$etc_opt/policy/all.pol"
expect "the sample is there" in_root test -s "$install_dir/etc/zyn.conf.sample"
in_root zynrehearse --install-tree /tree >/dev/null
expect "a tree for a rehearsal has the command" cmp "$root/tree/bin/zynrexec" "$root$install_dir/bin/zynrexec"
rm -r "$root/tree"
cp "$build/install_check.cmake" "$root"
expect_not "nothing is copied over the package" in_root cmake "-DCMAKE_INSTALL_PREFIX=$install_dir" -P install_check.cmake \
    2>"$folder/log"
expect "says why" grep -qF "The package zynrexec is installed in \"$install_dir\"." "$folder/log"
expect "elsewhere it may be" in_root cmake -DCMAKE_INSTALL_PREFIX=/srv/zyn -P install_check.cmake

echo "-- the service"
unit=/lib/systemd/system/zynrehearse@.service
cp "$root$unit" "$root/lib/systemd/system/zynrehearse@sample.service"
in_root systemd-analyze verify zynrehearse@sample.service >"$folder/log" 2>&1 || fail "is not understood"
expect "not a word" diff /dev/null "$folder/log"
rm "$root/lib/systemd/system/zynrehearse@sample.service"
in_root systemd-analyze security --offline=true --threshold=10 --no-pager "$unit" >"$folder/log" 2>&1 ||
    { cat "$folder/log"; fail "is exposed"; }

# Its command line as the service manager runs it: as nobody, without a right, in a directory of its own.
setting() {
    sed -n "s/^$1=//p" "$root$unit" | tail -n 1
}
state=/var/lib/zynrehearse/sample
mkdir -p "$root$state"
chown 65534:65534 "$root$state"
mkfifo "$folder/out"
line=$(setting ExecStart | sed 's/%i/sample/')
in_root setpriv --reuid 65534 --regid 65534 --clear-groups --no-new-privs --bounding-set -all --inh-caps -all \
    env -C "$state" ZYNREHEARSE_OPTIONS="--listen 127.0.0.1 --port 0 --dump ." \
    strace -f -qq -o trace sh -c "exec $line" >"$folder/out" &
server=$!
exec 3<"$folder/out"
read -r -t 30 line <&3 || line=
port=${line#listening on 127.0.0.1 port }
expect "listens" test "$port" -gt 0

# request ADDRESS...: by the port of the configuration, as nobody.
request() {
    in_root setpriv --reuid 65534 --clear-groups zynrexec --failover failover1
}
conf=$root$etc_opt/zyn.conf
echo "<root><cluster><trns><port>$port</port></trns></cluster></root>" >"$conf"
cp "$conf" "$folder/zyn.conf"
expect "configured" diff <(echo "GRP_FAILOVER 127.0.0.1 : Success") <(request | sed 's/ *$//')
expect "dumps" test -n "$(find "$root$state" -name '*-in.bin')"

echo "-- upgraded"
# later PACKAGE SED_ARGUMENT...: the package's next version, some of whose files were changed.
later() {
    local tree=$folder/memory/later
    dpkg-deb -R "$root/packages/$1_${version}_$architecture.deb" "$tree"
    sed -i "s/^Version: .*/Version: $version+1/" "$tree/DEBIAN/control"
    (cd "$tree" && sed -i "${@:2}")
    dpkg-deb --root-owner-group -b "$tree" "$root/packages/$1_later.deb" >/dev/null
    rm -r "$tree"
}
policy=$etc_opt/policy
later zynrexec 's,</root>,<!-- new --></root>,' ".$policy/rexec.pol" ".$policy/trnsv.pol"
later zynrehearse 's,^# A rehearsal,# Another rehearsal,' ".$unit"
echo '<!-- mine -->' >>"$root$policy/trnsv.pol"      # changed on both sides
echo '; mine' >>"$root$etc_opt/messages/rexec.msg.us" # changed by the operator
rm "$root/etc/zynrehearse/sample.xml"                 # removed by the operator
mkdir -p "$root/usr/lib64"
ln -s /srv/zyn/lib/libzynxml.so.1.0.0 "$root/usr/lib64/libzynxml.so.1.0"
install_as 0 "upgrade" --force-confdef --force-confold --install /packages/zynrexec_later.deb /packages/zynrehearse_later.deb
expect "another installation is warned of" grep -qF 'libzynxml.so.1.0 names the installation in "/srv/zyn".' "$folder/log"
rm -f "$root/usr/lib64/libzynxml.so.1.0"
expect "the configuration survives" cmp "$folder/zyn.conf" "$conf"
expect "trnsv.pol survives" grep -q mine "$root$policy/trnsv.pol"
expect "and the new one lies beside it" grep -q new "$root$policy/trnsv.pol.dpkg-dist"
expect "rexec.pol is new" grep -q new "$root$policy/rexec.pol"
expect "rexec.msg.us survives" grep -q mine "$root$etc_opt/messages/rexec.msg.us"
expect_not "sample.xml stays away" test -e "$root/etc/zynrehearse/sample.xml"
expect "the service is new" grep -q '^# Another' "$root$unit"
told 'daemon-reload\n' # and not to restart what runs
expect "configured, and the server runs on" diff <(printf 'GRP_FAILOVER 127.0.0.1 : Success\n') <(request | sed 's/ *$//')
# The first line of the trace begins with the server's process id.
kill "$(sed -n '1s/ .*//p' "$root$state/trace")"
status=0
wait "$server" || status=$?
server=
expect "ends as asked" test $status = 0
# allowed SET...: system calls, some of them as names of further sets.
allowed() {
    local calls sets
    calls=$(in_root systemd-analyze syscall-filter --no-pager "$@" | sed -n 's/^ \+//p' | grep -v '^#')
    sets=$(grep '^@' <<<"$calls") || true
    grep -v '^@' <<<"$calls" || true
    # shellcheck disable=SC2086
    [[ -z $sets ]] || allowed $sets
}
IFS=' ' read -r -a granted <<<"$(sed -n 's/^SystemCallFilter=@/@/p' "$root$unit")"
IFS=' ' read -r -a denied <<<"$(sed -n 's/^SystemCallFilter=~//p' "$root$unit")"
comm -23 <(allowed @default "${granted[@]}" | sort -u) <(allowed "${denied[@]}" | sort -u) >"$folder/filter"
sed -n 's/^[0-9]* *\([a-z][a-z0-9_]*\)(.*/\1/p' "$root$state/trace" | sort -u >"$folder/calls"
expect "it makes system calls" grep -qx accept4 "$folder/calls"
expect "all of them allowed" diff /dev/null <(comm -23 "$folder/calls" "$folder/filter")

echo "-- removed"
wanted=$root/etc/systemd/system/multi-user.target.wants
mkdir -p "$wanted"
ln -s "$unit" "$wanted/zynrehearse@sample.service"
install_as 0 "remove" --remove zynrexec zynrehearse
told 'stop zynrehearse@*.service\ndaemon-reload\n'
expect_not "the command is gone" in_root sh -c 'command -v zynrexec || command -v zynrehearse'
expect_not "nothing below the install directory" test -e "$root$install_dir"
expect "the configuration survives" cmp "$folder/zyn.conf" "$conf"
install_as 0 "install again" --install /packages/zynrexec_later.deb
expect "the configuration is in use again" cmp "$folder/zyn.conf" <(in_root cat "$install_dir/etc/zyn.conf")

echo "-- purged"
install_as 0 "purge" --purge zynrexec zynrehearse
rm -f "$root"/{told,install_check.cmake,packages/*_later.deb}
expect "nothing is left" diff <(echo "$before") <(changed)
for directory in "$etc_opt" "$install_dir" /etc/zynrehearse /usr/share/doc/zynrexec /var/lib/zynrehearse; do
    expect_not "no $directory" test -e "$root$directory"
done

((failures == 0))
