# Sourced by the other scripts: installs what is missing on a Debian machine and builds a preset.
# Running it a second time costs nothing.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_packages=(g++ cmake ninja-build pkg-config libxml2-dev libxml2-utils libgtest-dev libcli11-dev libasio-dev)
package_packages=(dpkg-dev binutils) # for cpack
test_packages=(mandoc man-db zsh fish strace iproute2 lintian systemd "${package_packages[@]}")

# install_packages NAME...: those of the packages that are not installed yet.
install_packages() {
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q 'install ok installed' || missing+=("$name")
    done
    ((${#missing[@]} == 0)) && return
    local as_root=()
    ((EUID == 0)) || as_root=(sudo)
    echo "Installing ${missing[*]}"
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# build_preset NAME [TARGET...]: configures build/NAME and builds the targets, or everything.
build_preset() {
    local preset=$1
    shift
    install_packages "${build_packages[@]}"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
