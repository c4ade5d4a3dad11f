# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by the tests of what is installed, after scripts/common.sh.

expect() { # STATUS TEXT COMMAND..: what the command must end with, and write among other things
    local status=0 output
    output=$("${@:3}" 2>&1) || status=$?
    [[ $status == "$1" && $output == *"$2"* ]] ||
        fail "${*:3}: wanted status $1 and '$2', got $status and: $output"
}

await() { # PROCESS COMMAND..: until the command succeeds, for 20 s and as long as the process lives
    for ((i = 0; i < 200; i++)); do
        "${@:2}" >/dev/null 2>&1 && return
        kill -0 "$1" 2>/dev/null || fail "the process ended before: ${*:2}"
        sleep 0.1
    done
    fail "in vain: ${*:2}"
}
