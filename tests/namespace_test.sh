#!/usr/bin/env bash
# namespace_test.sh BUILD INSTALL_DIR: the shipped command right after a bare installation to its built-in
# directory, which only this test sees: in installed mode, and without the seconds that a missing
# configuration costs.
set -euo pipefail
build=$1 install_dir=$2
top=/$(cut -d/ -f2 <<<"$install_dir")

skip() {
    echo "skipped: $*"
    exit 77
}

if [[ ${3-} != inside ]]; then
    [[ $build/ != "$top"/* ]] || skip "the build lies in $top, which would be hidden"
    for link in /usr/lib64/libzynxml.so.1.0 /usr/lib/libzynxml.so.1.0; do
        [[ ! -L $link ]] || skip "$link leads to an installation of this machine"
    done
    as_root=(--user --map-root-user)
    ((EUID != 0)) || as_root=()
    unshare "${as_root[@]}" --mount true 2>/dev/null || skip "no private mount namespace is allowed here"
    exec unshare "${as_root[@]}" --mount bash "$0" "$build" "$install_dir" inside
fi

mount -t tmpfs none "$top" || skip "no file system may be mounted here"
unset DESTDIR
cmake --install "$build" >/dev/null

# Port 1: nobody listens there. Two starts cost 12 seconds where the configuration is waited for.
cd "$top"
for log in first second; do
    timeout 6 "$install_dir/bin/zynrexec" --script x -p 1 -o $log | grep -qx 'Connect 127.0.0.1: Failed '
    grep -q 'port:1, usedns:1' "$install_dir/bin/$log"
    if grep standalone "$install_dir/bin/$log"; then
        echo "the command ran standalone" >&2
        exit 1
    fi
done
