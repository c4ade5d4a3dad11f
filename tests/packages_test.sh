#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The Debian packages in a root of their own with the base system only: installed, used, killed and
# restarted, replaced by another board's, purged. Needs root and Debian's mirror; mounts nothing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive
base=$PWD/build/clean-root.tar root=$PWD/build/clean-root server=
[ "$(id -u)" -eq 0 ] || fail "root is needed to install packages elsewhere"
require_packages mmdebstrap
trap '[ -z "$server" ] || kill -9 "$server" 2>/dev/null; rm -rf "$root"' EXIT

as() { # USER:GROUP COMMAND..
    chroot --userspec="${1%:*}" --groups="${1#*:}" "$root" "${@:2}"
}

apt() { # ARGUMENT..
    as root:root timeout 300 apt-get -qq -y --no-install-recommends "$@" >>"$root.log" 2>&1 ||
        fail "apt-get $* failed: see $root.log"
}

start_server() {
    chroot --userspec=tesk:tesk "$root" tesk-server &
    server=$!
    await $server as nobody:tesk teskctl ping -c 1
}

scripts/build-packages >/dev/null
if [ ! -f "$base" ]; then
    say "fetching a base system (once, takes some minutes)"
    timeout 900 mmdebstrap --quiet --format=tar --variant=minbase bookworm "$base.new" ||
        fail "the base system could not be fetched"
    rm -rf "$base"
    mv "$base.new" "$base"
fi
rm -rf "$root" "$root.log"
mkdir "$root"
tar -C "$root" -xf "$base"
cp /etc/resolv.conf "$root/etc/"
mkdir "$root/packages"
cp build/packages/*.deb "$root/packages/"

say "installing"
apt update
packages=("$root"/packages/*.deb)
apt install "${packages[@]#"$root"}"
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
kill -9 "$server"
wait "$server" 2>/dev/null || true
start_server
kill "$server"
wait "$server" || fail "the server ended with $?"
server=

say "replacing the board"
mkdir -p "$root/packages/other/DEBIAN"
printf '%s\n' 'Package: tesk-platform-other' 'Version: 1' 'Architecture: all' 'Maintainer: nobody' \
    'Provides: tesk-platform' 'Conflicts: tesk-platform' 'Replaces: tesk-platform' 'Description: none' \
    >"$root/packages/other/DEBIAN/control"
chroot "$root" dpkg-deb -b /packages/other /packages/other.deb >/dev/null
apt install /packages/other.deb
expect 0 "rc " chroot "$root" dpkg-query -W -f '${db:Status-Abbrev}' tesk-platform-sim
expect 0 "ii " chroot "$root" dpkg-query -W -f '${db:Status-Abbrev}' tesk-server

say "purging"
apt purge 'tesk-*' 'libtesk-*' 'python3-tesk-*'
rm -r "$root/packages"
left=$(
    find "$root" -xdev -iname '*tesk*' -o -iname '*mbx*' -o -iname '*dolm_ric*' -o -name 'libzel*'
    # Files that end in - are backups of the accounts.
    grep -rs --exclude='*-' tesk "$root/etc" "$root/var/lib/systemd" "$root/var/lib/dpkg/status"
) || true
[ -z "$left" ] || fail "left behind: $left"
say "keeping an account that the packages did not create"
chroot "$root" useradd --system --user-group --comment tesk-server tesk
mkdir "$root/packages"
cp build/packages/*.deb "$root/packages/"
apt install "${packages[@]#"$root"}"
apt purge 'tesk-*' 'libtesk-*'
expect 0 "tesk:" as root:root getent passwd tesk
say "installed, used, replaced and purged"
