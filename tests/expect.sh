# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by the tests that are scripts, after scripts/common.sh.

expect() { # STATUS TEXT COMMAND..: fails unless the command exits with STATUS and its output contains TEXT
    local status=0 output
    output=$("${@:3}" 2>&1) || status=$?
    [[ $status == "$1" && $output == *"$2"* ]] ||
        fail "${*:3}: wanted status $1 and '$2', got $status and: $output"
}

await() { # PROCESS COMMAND..: repeats the command until it succeeds, up to 20 s while the process runs
    for ((i = 0; i < 200; i++)); do
        "${@:2}" >/dev/null 2>&1 && return
        kill -0 "$1" 2>/dev/null || fail "the process ended before: ${*:2}"
        sleep 0.1
    done
    fail "timeout: ${*:2}"
}

report_guest() { # STATUS LOG of testkit/kernel/emulate, which has said what is missing if STATUS is 77
    [ "$1" -ne 77 ] || exit 0
    grep -A 12 '^FAILED' "$2" >&2 || true
    [ "$1" -eq 0 ] || fail "failed with $1: see $2"
    say "$(grep -c '^ok ' "$2") checks passed"
}

build_1_0_0() { # builds it once, in build/1.0.0/build/packages
    ! ls build/1.0.0/build/packages/{*.deb,lib/libmbx.so.1} >/dev/null 2>&1 || return 0
    say "building version 1.0.0 (once)"
    mkdir -p build/1.0.0
    git archive 1e6842f | tar -C build/1.0.0 -x || fail "the tree's history lacks version 1.0.0"
    build/1.0.0/scripts/build-packages >/dev/null
}
