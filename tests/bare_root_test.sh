#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The two commands of README.md in a clone of this tree, in a root that has nothing but Debian's base
# system: packages are installed and all is built there, with an empty environment. As in many
# containers, no namespace can be made. Where ./test --all has set up a cache of compilations, it serves here as
# well: it compiles what differs, and fails where a header is missing. Needs root, the right to mount, and
# Debian's mirror.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

root=$PWD/build/bare-root
tree=$root$PWD # the same path, so that the compilation cache is used
if [ "${1-}" != inside ]; then
    unshare --mount --pid --fork true 2>/dev/null || { echo "skipped: mounting needs root" && exit 0; }
    require_packages mmdebstrap
    trap 'rm -rf "$root"' EXIT
    make_clean_root "$root"
    mkdir -p "$tree"
    git clone -q --no-hardlinks . "$tree"
    unshare --mount --pid --fork --kill-child "$0" inside # mounts and processes end with it
    exit
fi

mount -t proc proc "$root/proc"
mount -t sysfs -o ro sysfs "$root/sys"
mount --rbind /dev "$root/dev"
export PATH=/usr/sbin:/usr/bin:/sbin:/bin

cache=()
if [ "${CMAKE_CXX_COMPILER_LAUNCHER-}" = ccache ] && [ -d "${CCACHE_DIR-}" ]; then
    mapfile -t cache < <(env | grep -E '^(CCACHE_|CMAKE_C(XX)?_COMPILER_LAUNCHER=)')
    mkdir -p "$root$CCACHE_DIR"
    mount --bind "$CCACHE_DIR" "$root$CCACHE_DIR"
    chroot "$root" sh -c 'apt-get -qq update && apt-get -qq -y --no-install-recommends install ccache' \
        >build/bare-root.log 2>&1 || fail "ccache could not be installed: see build/bare-root.log"
fi

# Runs the command in the clone, and prints how long it took. A process in a chroot can't make user
# namespaces.
in_root() { # COMMAND..
    local TIMEFORMAT="${0##*/}: $*: %R s; of CPU %U s and %S s"
    time in_empty_environment timeout 1500 chroot "$root" setpriv --bounding-set=-sys_admin --inh-caps=-sys_admin \
        env "${cache[@]}" sh -c 'cd "$0" && exec "$@"' "$PWD" "$@" >"build/bare-root.log" 2>&1 </dev/null ||
        { tail -n 40 build/bare-root.log >&2 && fail "$* failed on a bare Debian: see build/bare-root.log"; }
}

in_root ./run
expect 0 "the server was shut down cleanly" cat build/bare-root.log
in_root ./test
grep '^skipped ' build/bare-root.log || true
