# Sourced by the shell tests: what they share. Each ends with ((failures == 0)).

skip() {
    echo "skipped: $*"
    exit 77
}

failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

# expect NAME COMMAND...
expect() {
    "${@:2}" || fail "$1"
}
expect_not() {
    ! "${@:2}" || fail "$1"
}

# own_root BUILD INSTALL_DIR UNSHARE_OPTIONS ARGUMENT...: begins the test anew, with its arguments and "inside" behind
# them, as root in a mount namespace of its own; there the top directory of the built-in install directory, $top, is
# empty. The build must not lie in it. UNSHARE_OPTIONS may be empty.
own_root() {
    local build=$1 install_dir=$2 options=$3 link as_root=(--user --map-root-user)
    shift 3
    top=/$(cut -d/ -f2 <<<"$install_dir")
    [[ $install_dir == /[!/.]* ]] || skip "\"$install_dir\" is no install directory"
    if [[ ${*: -1} == inside ]]; then
        if [[ -z ${outer_mounts-} || $(readlink /proc/self/ns/mnt) == "$outer_mounts" ]]; then
            echo "\"inside\" is said by the test itself: here $top of the machine would be covered" >&2
            exit 1
        fi
        mount -t tmpfs none "$top" || skip "no file system may be mounted here"
        return
    fi
    [[ $build/ != "$top"/* ]] || skip "the build lies in $top, which would be hidden"
    for link in /usr/lib64/libzynxml.so.1.0 /usr/lib/libzynxml.so.1.0; do
        [[ ! -L $link ]] || skip "$link leads to an installation of this machine"
    done
    ((EUID != 0)) || as_root=()
    unshare "${as_root[@]}" --mount true 2>/dev/null || skip "no private mount namespace is allowed here"
    outer_mounts=$(readlink /proc/self/ns/mnt) exec unshare "${as_root[@]}" --mount $options bash "$0" "$@" inside
}
