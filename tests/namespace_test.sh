#!/usr/bin/env bash
# namespace_test.sh BUILD INSTALL_DIR: the shipped command right after a bare installation to its built-in
# directory, which only this test sees: in installed mode, and without the seconds that a missing
# configuration costs.
set -euo pipefail
build=$1 install_dir=$2
source "$(dirname "$0")/support/shell.sh"
own_root "$build" "$install_dir" "" "$@"
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
