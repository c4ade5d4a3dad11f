#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs into a folder of its own and uses it: a project from outside the tree, the example board with
# the unchanged server, tesk-abi-check. Called with the source and the build folder.
set -euo pipefail
source=$1 build=$2
. "$source/scripts/common.sh"
. "$source/tests/expect.sh"
work=$(mktemp -d)
server=
trap '[ -z "$server" ] || kill "$server"; wait; rm -rf "$work"' EXIT
export MBX_DIR=$work/mbx DOLM_RIC_SOCKET=$work/board.sock EXAMPLE_BOARD=$work/hardware

start_server() { # [directory of other libraries]
    LD_LIBRARY_PATH=${1:-} "$work/usr/sbin/tesk-server" &
    server=$!
    await $server "$teskctl" ping -c 1
}

stop_server() {
    kill "$server"
    wait "$server" || fail "the server ended with $?"
    server=
}

cmake --install "$build" --prefix "$work/usr" >/dev/null
teskctl=$work/usr/bin/teskctl
libraries=$(dirname "$(find "$work/usr" -name libmbx.so.1)")

# Used from outside the tree, also after the installation has been moved.
mv "$work/usr" "$work/moved" && ln -s moved "$work/usr"
PKG_CONFIG_PATH=$libraries/pkgconfig cmake -G Ninja -S "$source/tests/outside" -B "$work/outside" \
    -DCMAKE_PREFIX_PATH="$work/usr" -DEXAMPLES="$source/examples" >/dev/null
cmake --build "$work/outside" >/dev/null
start_server
LD_LIBRARY_PATH=$libraries expect 0 "port 0: link" "$work/outside/by_pkgconfig" 0 1
expect 0 "degrees" "$work/outside/by_cmake" 1 1
expect 0 "port 900: no device" "$work/outside/by_cmake" 0 900
stop_server

# Pages and examples are installed, the links of the pages are valid, and every example compiles.
doc=$work/usr/share/doc
while read -r link; do
    [ -f "$doc/tesk-server/$link" ] || fail "README.md links to $link, which is not installed"
done < <(grep -ohE '\]\((docs/|CHANGELOG)[^)#]+' "$doc/tesk-server/README.md" | cut -c3-)
for example in "$doc"/libtesk-client-dev/examples/*.c*; do
    case $example in
    *.cpp) compiler=c++ package=tesk_client ;;
    */exchange.c) compiler=cc package=tesk_mbx ;;
    *) compiler=cc package=tesk_client ;;
    esac
    PKG_CONFIG_PATH=$libraries/pkgconfig pkg-config --cflags --libs $package |
        xargs "$compiler" -o "$work/compiled" "$example" -Wl,-rpath-link,"$libraries"
done
[ -f "$doc/tesk-tools/examples/scenes/warm-up.scene" ] || fail "no scenes are installed"
[ -f "$work/usr/share/man/man3/tesk_client.3" ] || fail "tesk_client(3) is not installed"

# The installed completion, with a running server.
completed() { # TOOL WORD..: prints the completions of the last word
    PATH=$work/usr/bin:$PATH bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
        "_$1"; echo "${COMPREPLY[*]}"' _ "$work/usr/share/bash-completion/completions/$1" "$@" 2>/dev/null
}
start_server
expect 0 "14 15 all" completed teskctl pm ""
expect 0 "0-14 0-15" completed teskctl pm 0-1
expect 0 "temperature=" completed teskboard set 3 temp
expect 0 "71.5C" completed teskboard set 3 temperature = ""
stop_server

# The example board, built outside the tree. Only its library is replaced; tesk-abi-check needs all four.
cmake -G Ninja -S "$doc/tesk-platform-base/examples/board" -B "$work/example" \
    -DCMAKE_PREFIX_PATH="$work/usr" >/dev/null
cmake --build "$work/example" >/dev/null
board=$work/example/board
mkdir "$EXAMPLE_BOARD"
start_server "$board"
expect 0 '"module":"not present"' "$teskctl" --json sfp 0
expect 1 "no such port" "$teskctl" status 2
exec 3< <(timeout 30 "$teskctl" --json watch --sfp 0 --status 0)
watch=$!
await_indications() { # TEXT..: waits until the next indications contain all of them, in any order
    local line lines='' missing
    while read -r line <&3; do
        lines+=$line$'\n' missing=
        for text; do
            [[ $lines == *"$text"* ]] || missing=$text
        done
        [ -n "$missing" ] || return 0
    done
    fail "wanted $*, received: $lines"
}
await_indications '"link":"not operational"' '"module":"not present"'
mkdir "$work/part" && touch "$work/part/link" "$work/part/module"
mv "$work/part" "$EXAMPLE_BOARD/port0"
await_indications '"link":"operational","speed_gbps":10.0' '"vendor":"EXAMPLE"'
kill "$watch"
stop_server

check=$work/usr/bin/tesk-abi-check
expect 1 "libzel.so.0 is missing" "$check" "$board"
cp "$libraries"/lib{mbx,zel,tesktmo}.so.? "$board"
expect 0 "everything" "$check" "$board"
expect 0 "everything" "$check" --library "$board/libzel.so.0"
expect 2 "must begin with" "$check" --library "$board/../CMakeCache.txt"
printf 'int mbx_init; void mbx_exit(void) {}\n' >"$work/bad.c"
printf 'unsigned procInfo[8]; int zel_init(void) { return 0; }\n' >"$work/bad_zel.c"
cc -shared -fPIC -o "$board/libmbx.so.1" "$work/bad.c"
cc -shared -fPIC -o "$board/libzel.so.0" "$work/bad_zel.c"
head -c 3000 "$libraries/libtesktmo.so.0" >"$board/libtesktmo.so.0"
echo text >"$board/libdolm_ric.so.0"
for text in "mbx_init is data, but must be a function" "mbx_alloc is missing" "must be thread-local" \
    "libtesktmo.so.0 is damaged" "libdolm_ric.so.0 is no shared library"; do
    expect 1 "$text" "$check" "$board"
done
expect 1 '{"library":"libmbx.so.1","name":"mbx_alloc","text":"is missing"}' "$check" --json "$board"
expect 2 "--help" "$check" "$work/nowhere"
expect 0 "tesk-abi-check 1." "$check" --version
echo "the installation is complete"
