#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The server, its reader and teskctl on a real kernel in an emulated machine; what the modules hold is
# compared with `ethtool -m`. Needs what ./test --all installs, and once the network.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

require_packages "${packages_kernel[@]}"
images=build/kernel/images log=build/kernel/test.log
modules=${TESK_MODULES:-../shared/linux/modules}
programs=(tesk-server tesk-module-reader teskctl compare_module write_images)
say "building for the emulated machine"
cmake --preset release -DTESK_BUILD_TESTS=ON >/dev/null
cmake --build --preset release --target "${programs[@]}" dolm_ric_linux >build/kernel-programs.log ||
    fail "the build failed: see build/kernel-programs.log"

rm -rf "$images"
mkdir -p "$images"
build/release/bin/write_images "$images"
if [ -d "$modules/bin" ]; then
    cp "$modules"/bin/*.a[02] "$images/"
    [ ! -d "$modules/../images" ] || cp "$modules"/../images/*.a[02] "$images/"
else
    say "skipped: $modules has no memories of real modules; only those made here are compared"
fi

status=0
LD_LIBRARY_PATH=$PWD/build/release/lib/linux testkit/kernel/emulate --limit "${TESK_KERNEL_LIMIT:-300}" \
    tests/kernel_guest.sh testkit/kernel/guest.sh "${programs[@]/#/build/release/bin/}" "$images" \
    /usr/sbin/ethtool /usr/bin/setpriv /usr/bin/systemd-socket-activate >"$log" || status=$?
report_guest "$status" "$log"
