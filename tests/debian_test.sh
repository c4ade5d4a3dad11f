#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Of the Debian source package: its build runs the tests, lintian finds nothing that is not overridden with a
# reason, every compilation is hardened, and the libraries have all that those of 1.0.0 had. packages_test.sh
# uses this build. Needs root, the right to mount, and Debian's mirror.
#
# With --twice, which takes minutes more, a second build gives the same packages to the byte, in a root
# that has only Debian's base system and the packages that debian/control names. The two differ in user, folder,
# umask, locale, number of jobs, in the local date, which is never the same in these two time zones, and in the
# environment, which is empty for the second: no cache of compilations, and no tests.
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
built=build/packages root=$PWD/build/debian-root
again=$root/build log=$root.log
trap 'rm -rf "$root"' EXIT

in_root() { # COMMAND..: as this user, without variables; no mount or process stays
    in_empty_environment unshare --mount --pid --fork --kill-child sh -c \
        'mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" && exec chroot "$0" "$@"' \
        "$root" "$@" >>"$log" 2>&1 </dev/null || { tail -n 20 "$log" >&2 && fail "failed in the root: see $log"; }
}

# Debian's mirror may have newer headers than this machine, whose debugging data differ.
take_headers() {
    join <(dpkg-query -W -f '${Package} ${Version}\n' '*-dev' | sort) \
        <(dpkg-query --admindir="$root/var/lib/dpkg" -W -f '${Package} ${Version}\n' '*-dev' | sort) |
        while read -r package here there; do
            if [ -n "$there" ] && [ "$here" != "$there" ]; then
                say "taking $package $here from this machine; the mirror has $there"
                dpkg -L "$package" | tar -C / --no-recursion -T - -c | tar -C "$root" -x
            fi
        done
}

build_again() {
    rm -f "$log"
    make_clean_root "$root"
    mkdir "$again" "$root/source"
    cp "$built"/*.dsc "$built"/*.tar.* "$root/source/"
    say "installing what the build needs in a root"
    in_root env DEBIAN_FRONTEND=noninteractive sh -ec '
        apt-get -qq update
        apt-get -qq -y --no-install-recommends install locales
        apt-get -qq -y --no-install-recommends --build-profiles nocheck build-dep /source/*.dsc
        localedef -i tr_TR -f UTF-8 tr_TR.UTF-8
        useradd builder
        chown builder /build'
    take_headers
    say "building there"
    in_root setpriv --reuid builder --regid builder --clear-groups env -i PATH=/usr/bin:/bin LC_ALL=tr_TR.UTF-8 \
        TZ=UTC-14 DEB_BUILD_OPTIONS='noautodbgsym nocheck parallel=3' DEB_BUILD_PROFILES=nocheck sh -ec '
            umask 027
            cd /build
            dpkg-source -x /source/*.dsc
            cd */
            dpkg-buildpackage -us -uc'
    for file in "$built"/*.deb; do
        cmp -s "$file" "$again/${file##*/}" || {
            timeout 120 diffoscope "$file" "$again/${file##*/}" | head -n 100 >&2 || true
            fail "${file##*/} differs when it is built again"
        }
    done
}

grep -q '^[0-9]*% tests passed' "$built/log" 2>/dev/null || rm -f "$built/tree" # built with nocheck
# An object from a cache of compilations can have other debugging data.
env -u CMAKE_C_COMPILER_LAUNCHER -u CMAKE_CXX_COMPILER_LAUNCHER TZ=UTC+12 DEB_BUILD_OPTIONS='' \
    scripts/build-packages >/dev/null
grep '^[0-9]*% tests passed' "$built/log"

[ "${1-}" != --twice ] || build_again
lintian --no-cfg --allow-root --pedantic --display-info --fail-on error,warning,info,pedantic "$built"/*.changes
blhc --bindnow "$built/log"

# What a session points to is the client library's own: only what the headers define counts there.
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
