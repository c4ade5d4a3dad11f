#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks the systemd units with systemd's own tools. Called with the source and
# the build folder; exits with 77 without systemd.
set -euo pipefail
source=$1 build=$2
. "$source/scripts/common.sh"
command -v systemd-analyze >/dev/null || exit 77
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

verify() { # UNIT
    local said
    said=$(systemd-analyze verify --man=no "$work/$1" 2>&1 || echo failed)
    [ -z "$said" ] || fail "$1: $said"
}
check_unit() { # UNIT EXPOSURE, in tenths of the scale from 0 to 10
    sed "s|Start=/[^ ]*/\(tesk-[a-z-]*\)|Start=$build/bin/\1|; s|/[^ ]*/teskctl|$build/bin/teskctl|" \
        "$build/packaging/$1" >"$work/$1"
    verify "$1"
    systemd-analyze security --offline=true --no-pager --threshold="$2" "$work/$1" | tail -n 1
}
check_unit tesk-server.service 5
check_unit tesk-exporter.service 12
cp "$build/packaging/tesk-module-reader.socket" "$work"
check_unit tesk-module-reader.service 12
mkdir "$work/tesk-server.service.d"
cp "$source/packaging/linux-board.conf" "$work/tesk-server.service.d"
check_unit tesk-server.service 8
verify tesk-module-reader.socket

# The mailbox library's thread that wakes receivers lowers its own priority.
for unit in tesk-server tesk-exporter; do
    grep -qx "SystemCallFilter=sched_setscheduler" "$work/$unit.service" || fail "$unit.service refuses a call"
done

# If the unit refused a call, the reader would end before its first answer.
calls_of() { # SET..
    local set name
    for set; do
        systemd-analyze syscall-filter "$set" 2>/dev/null | while read -r name _; do
            case $name in
            "$set" | "#"*) ;;
            @*) calls_of "$name" ;;
            *) echo "$name" ;;
            esac
        done
    done | sort -u
}
sed -n 's/^SystemCallFilter=\([^@~]*\)$/\1/p' "$work/tesk-module-reader.service" | tr ' ' '\n' >"$work/allowed"
comm -23 <(calls_of @system-service) <(calls_of @privileged @resources) >>"$work/allowed"
for call in prctl $(grep -o 'SYS_[a-z0-9_]*' "$source/src/tesk_module_reader/confinement.cpp" | cut -c5-); do
    grep -qx "$call" "$work/allowed" || fail "tesk-module-reader.service refuses $call"
done
