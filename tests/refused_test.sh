#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2317 # functions are called by name
# Each system call that the programs make, refused as by a sandbox or an old kernel, and small limits of
# resources: a program goes on and can be stopped, or ends with a line; it neither hangs nor spins.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
build=$1 bin=$1/bin
export ZEL_SINK=stderr ZEL_GROUPS=1 # as in the unit
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

ticks() { read -ra stat 2>/dev/null <"/proc/$1/stat" && echo $((stat[13] + stat[14])); }

# The reason that a daemon printed before it ended by itself.
expect_reason() {
    wait "$process" && status=0 || status=$?
    if [[ ($status -eq 0 || $status -ge 128) && $status -ne 242 || ! -s $place/err ]]; then
        fail "$name: ended with $status and $(<"$place/err")"
    fi
}

# The daemon serves, and stops with status 0; or it ends with another status and a line. The first word names
# the case.
daemon() { # CASE COMMAND.. -- ASK..
    local name=$1 place="$folder/${1// /-}" command=() process used status=0 began=$SECONDS
    shift
    while [ "$1" != -- ]; do command+=("$1") && shift; done
    shift
    mkdir "$place"
    export MBX_DIR=$place DOLM_RIC_SOCKET=$place/board.sock DOLM_RIC_PORT_MAP=$place/ports
    "${command[@]}" 2>"$place/err" &
    process=$!
    until "$@" >/dev/null 2>&1; do
        if ! kill -0 "$process" 2>/dev/null; then
            expect_reason
            return
        fi
        ((SECONDS - began < 10)) || { kill -9 "$process"; fail "$name: serves nobody: $(<"$place/err")"; }
    done
    if ! used=$(ticks "$process") || ! sleep 0.3 || ! used=$(($(ticks "$process") - used)); then
        expect_reason
        return
    fi
    kill -TERM "$process"
    timeout 20 tail --pid="$process" -s 0.02 -f /dev/null || { kill -9 "$process"; fail "$name: can't be stopped"; }
    wait "$process" || status=$?
    ((used < 15)) || fail "$name: spins, $used ticks in 0.3 s"
    ((status == 0)) || fail "$name: stopped with $status and $(<"$place/err")"
}

server() { # CASE COMMAND..
    daemon "$@" "$bin/tesk-server" -- "$bin/teskctl" --timeout 2 ping -c 1
}

linux_server() {
    daemon "$1-linux" env "LD_LIBRARY_PATH=$build/lib/linux:$build/lib" "${@:2}" "$bin/tesk-server" -- \
        env "LD_LIBRARY_PATH=$build/lib" "$bin/teskctl" --timeout 2 ping -c 1
}

exporter() {
    daemon "$1-exporter" "${@:2}" "$bin/tesk-exporter" --listen "unix:$folder/${1// /-}.sock" -- \
        curl -s -m 2 --unix-socket "$folder/${1// /-}.sock" http://localhost/metrics
}

tool() { # CASE COMMAND..
    local name=$1 status=0 output
    output=$(timeout 10 "${@:2}" 2>&1) || status=$?
    ((status < 124 || status == 127)) || fail "$name: ended with $status and $output"
    ((status == 0)) || [ -n "$output" ] || fail "$name: ended with $status and without a line"
}

"$bin/refuse" fsync 1 /bin/true || exit 77
export MBX_DIR=$folder/tools DOLM_RIC_SOCKET=$folder/tools/board.sock
mkdir "$MBX_DIR"
"$bin/tesk-server" &
real=$!
trap 'kill $real; rm -rf "$folder"' EXIT
failed=0 error=1
for call in $("$bin/refuse" --list); do
    error=$((39 - error)) # EPERM and ENOSYS alternate
    refused=("$bin/refuse" "$call" "$error")
    jobs=()
    for kind in server linux_server exporter; do
        $kind "$call $error" "${refused[@]}" &
        jobs+=($!)
    done
    for words in "teskctl --timeout 2 sfp 0" "teskboard show 0" "tesk-module-reader --print-ports"; do
        # shellcheck disable=SC2086 # words
        (tool "$call $error $words" "${refused[@]}" "$bin/"$words) || failed=1
    done
    for job in "${jobs[@]}"; do wait "$job" || failed=1; done
done
for limit in "f 100" "d 1024" "d 4096" "v 20480" "v 30000" "n 10" "s 64"; do
    for kind in server linux_server; do
        # shellcheck disable=SC2016,SC2086 # for the inner shell; two words
        ($kind "limit $limit" bash -c 'ulimit "-$0" "$1" && shift && exec "$@"' ${limit}) || failed=1
    done
done
exit $failed
