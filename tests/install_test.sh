#!/usr/bin/env bash
# Installs into folders of its own, and lays out trees for a rehearsal; what has to be kept, refused, warned of.
# Arguments: cmake, the top directories of the build and of the sources, the built-in install directory.
set -euo pipefail
export LC_ALL=C
cmake=$1 build=$2 sources=$3 built_in=$4
unset DESTDIR
folder=$(mktemp -d)
trap 'chmod -R u+rwx "$folder"; rm -rf "$folder"' EXIT
source "$(dirname "$0")/support/shell.sh"

# The build's installation, but for its list of installed files, which would stay in the build tree.
mkdir "$folder/build"
sed "s,file(WRITE \"$build/,file(WRITE \"$folder/build/," "$build/cmake_install.cmake" >"$folder/build/cmake_install.cmake"
expect "the list of installed files goes elsewhere" grep -q "file(WRITE \"$folder" "$folder/build/cmake_install.cmake"

links=$folder/links/below
link=$links/libzynxml.so.1.0
prefix="$folder/srv/a & <b>"
# Runs as whoever this is, but root without the right to write where the permission bits forbid it.
as_user=()
if ((EUID == 0)); then
    as_user=(setpriv --bounding-set "-dac_override,-dac_read_search")
    "${as_user[@]}" true || as_user=()
fi

# install_to PREFIX [LINK]: into $log what it says, as one line.
log=
install_to() {
    local status=0
    "${as_user[@]}" "$cmake" "-DCMAKE_INSTALL_PREFIX=$1" "-DZYN_LIBRARY_LINK=${2:-$link}" \
        "-DZYN_LIBRARY_LINK_RETRY=$folder/none" -P "$folder/build/cmake_install.cmake" >"$folder/log" 2>&1 || status=$?
    log=$(tr -s ' \n' ' ' <"$folder/log")
    return $status
}

# says TEXT: whether the last installation did.
says() {
    [[ $log == *"$1"* ]] || { echo "$log"; return 1; }
}

# Files and links below a directory, with their sizes and times.
state() {
    (cd "$1" && find . -not -type d -printf '%p %s %T@ %l\n' | sort)
}

path_in() {
    xmllint --xpath 'string(/root/all/path)' "$1/etc/policy/all.pol"
}

cat >"$folder/listing" <<'LIST'
bin
bin/zynconfig
bin/zynrexec
etc
etc/policy
etc/policy/all.pol
etc/policy/cluster.pol
etc/policy/event.pol
etc/policy/log.pol
etc/policy/rexec.pol
etc/policy/statsd.pol
etc/policy/trnsv.pol
etc/zyn.conf
etc/zyn.conf.sample
lib
lib/libzynxml.so.1.0.0
messages
messages/cluster.msg.us
messages/event.msg.us
messages/rexec.msg.us
messages/trnsv.msg.us
share
share/man
share/man/man5
share/man/man5/zyn.conf.5
share/man/man7
share/man/man7/zynrexec-results.7
share/man/man8
share/man/man8/zynconfig.8
share/man/man8/zynrexec.8
tmp
work
work/ipc
LIST

echo "-- a first installation elsewhere"
expect "installs" install_to "$folder/srv/../srv//a & <b>/"
expect "exactly these files" diff "$folder/listing" <(cd "$prefix" && find . -mindepth 1 -printf '%P\n' | sort)
expect "link" test "$(readlink "$link")" = "$prefix/lib/libzynxml.so.1.0.0"
/sbin/ldconfig -n "$links"
expect "the link outlives ldconfig" test -L "$link"
expect "path" test "$(path_in "$prefix")" = "$prefix"
expect "command" cmp "$build/bin/zynrexec" "$prefix/bin/zynrexec"
expect "zynconfig" cmp "$build/bin/zynconfig" "$prefix/bin/zynconfig"
expect "command can be run" test -x "$prefix/bin/zynrexec"
for name in log event cluster trnsv rexec statsd; do
    expect "$name.pol" cmp {"$sources","$prefix"}/etc/policy/$name.pol
done
for name in rexec trnsv event cluster; do
    expect "$name.msg.us" cmp {"$sources/etc","$prefix"}/messages/$name.msg.us
done
expect "zyn.conf" cmp {"$sources","$prefix"}/etc/zyn.conf
expect "sample" cmp {"$sources","$prefix"}/etc/zyn.conf.sample

echo "-- a second one changes nothing"
before=$(state "$folder")
expect "installs" install_to "$prefix"
expect "the same files" diff <(grep -v '/build/\|/log ' <<<"$before") <(state "$folder" | grep -v '/build/\|/log ')

echo "-- what was changed stays"
echo '<root><all><core>0</core></all></root>' >"$prefix/etc/zyn.conf"
sed -i 's/>180</>300</' "$prefix/etc/policy/rexec.pol"
sed -i "s,<path>.*<,<path>/elsewhere<," "$prefix/etc/policy/all.pol"
echo "; changed" >>"$prefix/messages/trnsv.msg.us"
cp "$prefix/messages/trnsv.msg.us" "$folder/trnsv.msg.us"
echo changed >"$prefix/etc/zyn.conf.sample"
cp -r "$prefix/etc" "$folder/changed"
expect "installs" install_to "$prefix"
for file in zyn.conf policy/rexec.pol policy/all.pol; do
    expect "$file is kept" cmp {"$folder/changed","$prefix/etc"}/$file
done
expect "new rexec.pol" cmp "$sources/etc/policy/rexec.pol" "$prefix/etc/policy/rexec.pol.new"
expect "new all.pol, with the path" grep -qF 'a &amp; &lt;b&gt;</path>' "$prefix/etc/policy/all.pol.new"
expect "says so" says "rexec.pol, which differs from the new one; see rexec.pol.new beside it"
expect "trnsv.msg.us is kept" cmp {"$folder","$prefix/messages"}/trnsv.msg.us
expect "new trnsv.msg.us" cmp "$sources/etc/messages/trnsv.msg.us" "$prefix/messages/trnsv.msg.us.new"
expect "no other new ones" test "$(find "$prefix" -name '*.new' | wc -l)" = 3
expect "sample" cmp {"$sources","$prefix"}/etc/zyn.conf.sample
mv "$prefix/etc/policy/rexec.pol.new" "$prefix/etc/policy/rexec.pol"
mv "$prefix/etc/policy/all.pol"{.new,}
mv "$prefix/messages/trnsv.msg.us"{.new,}
echo left over >"$prefix/etc/policy/log.pol.new"
expect "installs" install_to "$prefix"
expect "no new ones are left" test -z "$(find "$prefix" -name '*.new')"

echo "-- another installation takes the link over"
expect "installs" install_to "$folder/srv/other"
expect "link" test "$(readlink "$link")" = "$folder/srv/other/lib/libzynxml.so.1.0.0"
expect "says so" says "Replaced: $link, which led the command to \"$prefix\""

# refused NAME PREFIX LINK TEXT: with a message that holds the text, and without a trace.
refused() {
    local before
    before=$(state "$folder" | grep -v '/log ')
    expect_not "$1 is refused" install_to "$2" "$3"
    expect "$1: says why" says "$4"
    expect_not "$1: nothing is made" test -e "$2"
    expect "$1: nothing is changed" diff <(echo "$before") <(state "$folder" | grep -v '/log ')
}
echo "-- refused"
refused "prefix with /lib" "$folder/new/libdir" "$link" "holds \"/lib\""
refused "prefix below /lib" "$folder/lib/new" "$link" "look for its installation in \"$folder\""
refused "prefix with a tab" "$folder/new"$'\t'tab "$link" "holds a tab"
echo occupied >"$folder/file"
mkdir "$folder/directory" "$folder/readonly"
refused "link is a file" "$folder/new" "$folder/file" "is no symbolic link"
refused "link is a directory" "$folder/new" "$folder/directory" "is no symbolic link"
refused "link below a file" "$folder/new" "$folder/file/a/b" "cannot be made: no right to write into \"$folder/file\", or"
if ((EUID != 0 || ${#as_user[@]} > 0)); then
    ln -s /srv/zyn/lib/x "$folder/readonly/link"
    chmod 555 "$folder/readonly"
    refused "link cannot be written" "$folder/new" "$folder/readonly/a/link" "no right to write into \"$folder/readonly\""
    refused "link cannot be replaced" "$folder/new" "$folder/readonly/link" "no right to write into \"$folder/readonly\""
fi

echo "-- staged"
stage=$folder/stage
DESTDIR=$stage "$cmake" --install "$folder/build" --prefix /srv/lazy >"$folder/log" 2>&1 || fail "staged elsewhere"
staged_link=$(cd "$stage" && find . -type l -printf '%P %l')
expect "link" test "${staged_link#* }" = /srv/lazy/lib/libzynxml.so.1.0.0
expect "path" test "$(path_in "$stage/srv/lazy")" = /srv/lazy
expect "exactly these files" diff "$folder/listing" <(cd "$stage/srv/lazy" && find . -mindepth 1 -printf '%P\n' | sort)
DESTDIR=$stage install_to "$built_in" "/${staged_link% *}" || fail "staged built-in"
expect "warns" says "names the installation in \"/srv/lazy\". The command will go on using that one"
expect "path" test "$(path_in "$stage$built_in")" = "$built_in"
expect "the link stays" test "$(readlink "$stage/${staged_link% *}")" = /srv/lazy/lib/libzynxml.so.1.0.0
rm -rf "$stage"
DESTDIR=$stage install_to "$built_in" || fail "staged built-in"
expect_not "no warning without a link" grep -qi warning "$folder/log"
expect "no link" test -z "$(find "$stage" -type l)"
mkdir -p "$stage$links"
ln -s "$built_in/lib/libzynxml.so.1.0.0" "$stage$link"
DESTDIR=$stage install_to "$built_in" || fail "staged built-in"
expect_not "no warning with a link of its own" grep -qi warning "$folder/log"
ln -sfn nowhere "$stage$link"
DESTDIR=$stage install_to "$built_in" || fail "staged built-in"
expect_not "no warning with a link to nothing useful" grep -qi warning "$folder/log"

echo "-- a tree for a rehearsal"
rehearse=$build/bin/zynrehearse
tree="$folder/tree & <t>"
expect "lays out" "$rehearse" --install-tree "$folder/x/../tree & <t>/" >"$folder/log"
cp -r "$tree" "$folder/by_hand"
rm -rf "$tree"
expect "installs" install_to "$tree"
diff -r "$folder/by_hand" "$tree" >"$folder/differences" || true
expect "as installed, but for zynconfig, the link's target and the manuals" \
    diff <(printf "Only in $tree%s\n" /bin:\ zynconfig :\ {lib,share}) "$folder/differences"
echo '<root><all><core>0</core></all></root>' >"$tree/etc/zyn.conf"
sed -i 's/>180</>300</' "$tree/etc/policy/rexec.pol"
echo left over >"$tree/etc/policy/log.pol.new"
echo changed >"$tree/etc/zyn.conf.sample"
echo changed >"$tree/messages/event.msg.us"
rm "$tree/etc/policy/trnsv.pol"
cp -r "$tree/etc" "$folder/changed_tree"
(cd "$folder" && "$rehearse" --install-tree "tree & <t>" >"$folder/log") || fail "lays out again, from a relative name"
expect "zyn.conf is kept" cmp {"$folder/changed_tree","$tree/etc"}/zyn.conf
expect "rexec.pol is kept" cmp {"$folder/changed_tree","$tree/etc"}/policy/rexec.pol
expect "new rexec.pol" cmp "$sources/etc/policy/rexec.pol" "$tree/etc/policy/rexec.pol.new"
expect "trnsv.pol is back" cmp {"$sources","$tree"}/etc/policy/trnsv.pol
expect "sample" cmp {"$sources","$tree"}/etc/zyn.conf.sample
expect "event.msg.us is kept" grep -qx changed "$tree/messages/event.msg.us"
expect "new event.msg.us" cmp "$sources/etc/messages/event.msg.us" "$tree/messages/event.msg.us.new"
expect "no other new ones" test "$(find "$tree" -name '*.new' -o -name '*.tmp' | wc -l)" = 2
expect "says so" grep -qF "rexec.pol, which differs; the new one is $tree/etc/policy/rexec.pol.new" "$folder/log"
status=0
"$rehearse" --install-tree "$folder/file/tree" >"$folder/log" 2>&1 || status=$?
expect "below a file: exit status" test $status = 1
expect "below a file: says where" grep -q "$folder/file/tree" "$folder/log"
status=0
"$rehearse" --install-tree "$folder/new" -q >"$folder/log" 2>&1 || status=$?
expect "another option: exit status" test $status = 2
expect_not "another option: nothing is made" test -e "$folder/new"

((failures == 0))
