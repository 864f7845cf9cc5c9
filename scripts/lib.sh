# SPDX-License-Identifier: LGPL-2.1-or-later
# shellcheck shell=bash disable=SC2034  # sourced: the callers use the lists
# What the scripts share: where things are, which Debian packages they need, how a build directory comes about.

set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build

build_packages=(build-essential meson ninja-build pkgconf libsystemd-dev libexpat1-dev libwolfssl-dev)
tool_packages=(dbus-daemon libcli11-dev nlohmann-json3-dev libsmartcols-dev)
test_packages=(libgtest-dev dwarves dbus-bin)
check_packages=(clang libclang-rt-dev clang-format clang-tidy shellcheck yapf3 flake8 doxygen valgrind)
peer_packages=(libsdbus-c++-dev libglib2.0-dev libglib2.0-bin libdbus-1-dev dbus-bin systemd)
arm_packages=(crossbuild-essential-armhf qemu-user-static)

# need_packages PACKAGE...: installs those that are missing; without the right to do so, says what to run and gives up.
need_packages()
{
    local package missing=() as_root=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    if [[ $(id -u) != 0 ]]; then
        if ! command -v sudo >/dev/null || ! { [[ -t 0 ]] || sudo -n true 2>/dev/null; }; then
            echo "Packages are missing. Run this as root, then come back:" >&2
            echo "apt-get update; apt-get install -y --no-install-recommends ${missing[*]}" >&2
            exit 2
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    # One source that cannot be reached does not matter as long as the packages are found.
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update || true
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}" \
        >/dev/null
}

# configure NAME OPTION...: sets up build/NAME, anew when the options are not those of last time.
configure()
{
    local dir=$build/$1
    if [[ ! -f $dir/build.ninja || $(cat "$dir/options" 2>/dev/null) != "${*:2}" ]]; then
        rm -rf "$dir"
        meson setup "$dir" "$root" "${@:2}"
        echo "${*:2}" >"$dir/options"
    fi
}

compile()
{
    configure "$@"
    ninja -C "$build/$1"
}
