#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Of the Debian source package: its build runs the tests, lintian finds nothing that is not overridden with a
# reason, every compilation is hardened, and the libraries have all that those of 1.0.0 had. packages_test.sh
# uses this build. Needs root, the right to mount, and Debian's mirror.
#
# With --twice a second build in a minimal root runs the tests, too, and gives
# the same packages to the byte, and a third one those for arm64.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

case ${1-} in
'' | --twice) ;;
*)
    echo "takes --twice or nothing, not $1" >&2
    exit 2
    ;;
esac
unshare --mount --pid --fork true 2>/dev/null || { echo "skipped: mounting needs root" && exit 0; }
require_packages mmdebstrap lintian blhc abigail-tools diffoscope-minimal
built=build/packages kind=$(dpkg --print-architecture)

is_the_same_again() { # FILE
    cmp -s "$1" "build/packages-$kind/${1##*/}" || {
        timeout 120 diffoscope "$1" "build/packages-$kind/${1##*/}" | head -n 100 >&2 || true
        fail "${1##*/} differs when it is built again"
    }
}

# Each program and library is for that architecture, and the packages have the same names and files as those
# of this machine.
is_for_arm64() { # FILE
    local unpacked=build/packages-arm64/unpacked own=${1/packages-arm64/packages} wrong
    own=${own/_arm64/_$kind}
    rm -rf "$unpacked"
    dpkg-deb -x "$1" "$unpacked"
    diff <(dpkg-deb --fsys-tarfile "$own" | tar -t | sed "s/$(dpkg-architecture -q DEB_HOST_MULTIARCH)/aarch64-linux-gnu/" | sort) \
        <(dpkg-deb --fsys-tarfile "$1" | tar -t | sort) >&2 || fail "${1##*/} has other files than ${own##*/}"
    wrong=$(find "$unpacked" -type f -exec file {} + | grep ' ELF ' | grep -v 'ARM aarch64') || return 0
    fail "not for arm64: $wrong"
}

build_again() {
    DEB_BUILD_OPTIONS=noopt scripts/build-in-root "$kind" arm64 >/dev/null # only the packaging is tested
    grep '^[0-9]*% tests passed' build/debian-root.log
    for file in "$built"/*.deb; do
        is_the_same_again "$file"
    done
    for file in build/packages-arm64/*_arm64.deb; do
        is_for_arm64 "$file"
    done
}

grep -q '^[0-9]*% tests passed' "$built/log" 2>/dev/null || rm -f "$built/tree" # built with nocheck
# An object from a compilation cache can contain other debugging data.
env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER TZ=UTC+12 DEB_BUILD_OPTIONS='' \
    scripts/build-packages >/dev/null
grep '^[0-9]*% tests passed' "$built/log"

[ "${1-}" != --twice ] || build_again
lintian --no-cfg --allow-root --pedantic --display-info --fail-on error,warning,info,pedantic "$built"/*.changes
blhc --bindnow "$built/log"

# The contents of a session are internal to the client library: only types that the headers define are
# compared.
build_1_0_0
first=build/1.0.0 tree=$(echo "$built"/tesk-server-*/)
for library in libmbx.so.1 libzel.so.0 libtesktmo.so.0 libdolm_ric.so.0 libtesk_client.so.0; do
    options=(--no-added-syms)
    [ "$library" != libtesk_client.so.0 ] ||
        options+=(--drop-private-types --header-file1 "$first/src/tesk_client/tesk_client.h"
                  --headers-dir2 "$tree/debian/libtesk-client-dev/usr/include/tesk_client")
    abidiff "${options[@]}" "$first/build/packages/lib/$library" "$tree"/obj-*/lib/"$library" ||
        fail "$library is not as that of 1.0.0: see above"
done
say "the source package is fit for a distribution"
