#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Of the Debian source package: a second build gives the same packages to the byte, in another folder,
# with another umask, locale and time zone, an empty environment, another number of jobs, and with its
# tests, which must pass. lintian finds nothing that is not overridden with a reason, every compilation
# is hardened, and the libraries have all that those of 1.0.0 had. packages_test.sh uses the first build.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

require_packages lintian blhc abigail-tools diffoscope-minimal
built=build/packages again=$PWD/build/packages-again/tree
scripts/build-packages >/dev/null
(umask 027 && in_empty_environment env LC_ALL=C.UTF-8 TZ=Pacific/Chatham DEB_BUILD_OPTIONS=parallel=3 \
    scripts/build-packages "$again" >/dev/null)
for package in "$built"/*.deb; do
    cmp -s "$package" "$again/${package##*/}" || {
        timeout 120 diffoscope "$package" "$again/${package##*/}" | head -n 100 >&2 || true
        fail "${package##*/} differs when it is built again"
    }
done
grep '^[0-9]*% tests passed' "$again/log"

lintian --no-cfg --allow-root --pedantic --display-info --fail-on error,warning,info,pedantic "$built"/*.changes
blhc --bindnow "$again/log"

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
