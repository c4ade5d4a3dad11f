#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The Debian packages in a root of their own, which has nothing but the base system: installed, used,
# killed and started again, one board replaced by another, upgraded from version 1.0.0, purged. Needs
# root, Debian's mirror and the tree's history; nothing is mounted.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive
root=$PWD/build/clean-root server=
[ "$(id -u)" -eq 0 ] || fail "root is needed to install packages elsewhere"
require_packages mmdebstrap dpkg-dev
trap '[ -z "$server" ] || kill -9 "$server" 2>/dev/null; rm -rf "$root"' EXIT

as() { # USER:GROUP COMMAND..
    chroot --userspec="${1%:*}" --groups="${1#*:}" "$root" "${@:2}"
}

apt() { # ARGUMENT..
    as root:root timeout 300 apt-get -qq -y --no-install-recommends "$@" >>"$root.log" 2>&1 ||
        fail "apt-get $* failed: see $root.log"
}

# The root has no /proc, so the umask affects the mode of the board's socket.
start_server() {
    (umask 007 && exec chroot --userspec=tesk:tesk "$root" tesk-server) &
    server=$!
    await $server as nobody:tesk teskctl ping -c 1
}

stop_server() {
    kill "$server"
    wait "$server" || fail "the server ended with $?"
    server=
}

state_of() { # PACKAGE
    chroot "$root" dpkg-query -W -f '${db:Status-Abbrev}' "$1"
}

purge_all() {
    apt purge 'tesk-*' 'libtesk-*' 'python3-tesk-*'
    local left
    left=$(
        find "$root" -xdev -path "$root/packages" -prune -o \
            \( -iname '*tesk*' -o -iname '*mbx*' -o -iname '*dolm_ric*' -o -name 'libzel*' \) -print
        # Names that end in - are the system's own backups of account files.
        grep -rs --exclude='*-' tesk "$root/etc" "$root/var/lib/systemd" "$root/var/lib/dpkg/status"
    ) || true
    [ -z "$left" ] || fail "left behind: $left"
}

scripts/build-packages >/dev/null
build_1_0_0
rm -f "$root.log"
make_clean_root "$root"
mkdir -p "$root/packages/1.0.0"
cp build/packages/*.deb "$root/packages/"
cp build/1.0.0/build/packages/*.deb "$root/packages/1.0.0/"
shopt -s extglob nullglob
inside() { # FILE..: paths inside the root
    printf '%s\n' "${@#"$root"}"
}
mapfile -t with_simulator < <(inside "$root"/packages/!(*-linux_*).deb)
mapfile -t with_linux < <(inside "$root"/packages/!(*-sim_*).deb)
mapfile -t version_1 < <(inside "$root"/packages/1.0.0/*.deb)

say "installing"
apt update
mapfile -t exporter < <(inside "$root"/packages/@(tesk-exporter|libtesk-client0|tesk-platform-base)_*.deb)
apt install "${exporter[@]}"
expect 0 "tesk:" as root:root getent group tesk
apt install "${with_simulator[@]}"
expect 0 "750 tesk:tesk" as root:root stat -c '%a %U:%G' /run/mbx

say "using"
start_server
expect 0 "operational" as nobody:tesk teskctl status 0
expect 3 'group "tesk"' as nobody:nogroup teskctl status 0
expect 0 "41.5" as nobody:tesk python3 -c \
    'import tesk_client; print(tesk_client.Session().pm(0).temperature_c)'
expect 0 "" as nobody:tesk teskboard link 0 down
expect 0 '"link":"not operational"' as nobody:tesk teskctl --json status 0
expect 0 "everything" as nobody:nogroup tesk-abi-check "/usr/lib/$(dpkg-architecture -q DEB_HOST_MULTIARCH)"
expect 0 "tesk-exporter 1." as nobody:tesk tesk-exporter --version
expect 0 "dygraph.min.js" as nobody:tesk ls /usr/share/tesk-exporter/web/index.html /usr/share/tesk-exporter/web
expect 0 "tesk-alerts.yml" as nobody:tesk ls /usr/share/doc/tesk-exporter/examples/prometheus
cp debian/tests/simulated-board "$root/packages/"
as nobody:nogroup /packages/simulated-board >>"$root.log" 2>&1 || fail "the packages' own test failed: see $root.log"
kill -9 "$server"
wait "$server" 2>/dev/null || true
start_server
stop_server

say "the board for Linux in the simulated one's place"
apt install "${with_linux[@]}"
expect 0 "rc " state_of tesk-platform-sim
cp examples/modules/sfp-10g-sr.bin "$root/packages/module"
printf '%s\n' '0 lo module=/packages/module' '1 nowhere' wrong >"$root/etc/tesk/ports"
start_server 2>"$root.errors"
expect 0 "optical, 10.0 Gbps" as nobody:tesk teskctl sfp 0
expect 0 "no module" as nobody:tesk teskctl status 1
expect 0 "1 nowhere" as root:root tesk-module-reader --print-ports
expect 0 "ports:3: a line is: NUMBER INTERFACE" cat "$root.errors"
apt purge tesk-platform-sim
expect 0 "1	nowhere" as nobody:tesk cat /run/dolm_ric/ports
stop_server
expect 0 "ii " state_of tesk-platform-linux

say "a board of before, with all four libraries"
mkdir -p "$root/packages/other/DEBIAN"
printf '%s\n' 'Package: tesk-platform-other' 'Version: 1' 'Architecture: all' 'Maintainer: nobody' \
    'Provides: tesk-platform' 'Conflicts: tesk-platform' 'Replaces: tesk-platform' 'Description: none' \
    >"$root/packages/other/DEBIAN/control"
chroot "$root" dpkg-deb -b /packages/other /packages/other.deb >/dev/null
apt install /packages/other.deb
expect 0 "rc " state_of tesk-platform-linux
expect 0 "ii " state_of tesk-server
purge_all

say "upgrading from 1.0.0"
apt install "${version_1[@]}"
expect 0 "tesk-platform-sim" chroot "$root" dpkg -S libmbx.so.1
chroot "$root" dpkg --auto-deconfigure -i "${with_simulator[@]}" >>"$root.log" 2>&1 ||
    fail "dpkg -i failed: see $root.log"
expect 0 "tesk-platform-base" chroot "$root" dpkg -S libmbx.so.1
expect 0 "tesk-platform-sim" chroot "$root" dpkg -S libdolm_ric.so.0
[ -z "$(chroot "$root" dpkg --audit)" ] || fail "dpkg --audit complains"
start_server
expect 0 "operational" as nobody:tesk teskctl status 0
stop_server
purge_all

say "upgrading from 1.0.0 to the board for Linux"
apt install "${version_1[@]}"
apt install "${with_linux[@]}"
expect 0 "rc " state_of tesk-platform-sim
expect 0 "tesk-platform-linux" chroot "$root" dpkg -S libdolm_ric.so.0
expect 0 "ok     versions" as nobody:tesk sh -c 'teskctl doctor | grep versions'
purge_all

say "keeping an account that the packages did not create"
chroot "$root" useradd --system --user-group --comment tesk-server tesk
apt install "${with_simulator[@]}"
apt purge 'tesk-*' 'libtesk-*'
expect 0 "tesk:" as root:root getent passwd tesk

say "what the names bring"
(cd "$root/packages" && dpkg-scanpackages --multiversion . >Packages 2>/dev/null)
echo 'deb [trusted=yes] file:/packages ./' >"$root/etc/apt/sources.list.d/packages.list"
apt update
brings() { # PLATFORMS PACKAGE..: which tesk-platform-* are installed with the packages
    local found
    found=$(as root:root apt-get -s install "${@:2}" | sed -n 's/^Inst \(tesk-platform-[a-z]*\) .*/\1/p' | sort | xargs)
    [ "$found" = "$1" ] || fail "apt-get install ${*:2} brings $found, not $1"
}
brings "tesk-platform-base" libtesk-client-dev
brings "tesk-platform-base tesk-platform-sim" tesk-server
brings "tesk-platform-base tesk-platform-linux" tesk-server tesk-platform-linux
say "installed, used, replaced, upgraded and purged"
