#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The packages under systemd, in an emulated machine that boots with them: all units as they ship, on
# ports that the kernel has. Needs root, Debian's mirror once, and what tests/kernel_test.sh needs.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

[ "$(id -u)" -eq 0 ] || fail "root is needed to install packages elsewhere"
require_packages mmdebstrap "${packages_kernel[@]}"
base=$PWD/build/systemd-root.tar root=$PWD/build/systemd-root log=build/systemd-test.log
trap 'rm -rf "$root"' EXIT
with=systemd,systemd-sysv,kmod,iproute2,libglib2.0-0,liblttng-ust1,libfmt9,libmicrohttpd12,libjs-dygraphs,libsqlite3-0,liburing2
if [ ! -f "$base" ]; then
    say "fetching a system with systemd (once, takes some minutes)"
    timeout 900 mmdebstrap --quiet --format=tar --variant=minbase --include=$with \
        --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
        --dpkgopt='path-exclude=/usr/share/locale/*' bookworm "$base.new" ||
        fail "the system could not be fetched"
    mv "$base.new" "$base"
fi
scripts/build-packages >/dev/null
rm -rf "$root"
mkdir "$root"
tar -C "$root" -xf "$base"
rm -rf "$root"/var/cache/apt/* "$root"/var/lib/apt/lists/*
mkdir "$root/packages"
shopt -s extglob
cp build/packages/!(*-sim_*|*-dev_*|python3-*).deb "$root/packages/"
chroot "$root" sh -c 'dpkg -i /packages/*' >"$log" 2>&1 || fail "the packages were not installed: see $log"
rm -r "$root/packages"
images=$root/t/images
mkdir -p "$images"
cmake --preset release -DTESK_BUILD_TESTS=ON >/dev/null
cmake --build --preset release --target write_images >>"$log"
build/release/bin/write_images "$images"

status=0
testkit/kernel/emulate --limit "${TESK_KERNEL_LIMIT:-300}" --root "$root" tests/systemd_guest.sh \
    testkit/kernel/guest.sh >"$log" || status=$?
report_guest "$status" "$log"
