#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# How ./test ends when tests fail, with a ctest and a build that are played, and which commit messages
# the hook accepts that ./test sets up.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh
. tests/expect.sh

place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
mkdir -p "$place/bin" "$place/tree/build/release/Testing/Temporary"
play() { # PROGRAM COMMAND
    printf '#!/bin/sh\n%s\n' "$2" >"$place/bin/$1"
    chmod +x "$place/bin/$1"
}
play cmake true
play ctest 'exit 8'
play dpkg-query 'printf installed'
cp -r test scripts "$place/tree"
cd "$place/tree"
git init -q --template= .
printf '%s\n' '1/1 Testing: pages.x' 'skipped: no such thing' >build/release/Testing/Temporary/LastTest.log
expect 1 "skipped pages.x: no such thing" env PATH="$place/bin:$PATH" ./test

seq 30 >many
git add many
hook=$(git rev-parse --git-path hooks/commit-msg)
while IFS='|' read -r status answer message; do
    printf '%b\n' "$message" >message
    expect "$status" "$answer" "$hook" message
done <<'END'
0||mbx: what\n\nand why
0||Merge branch 'x'
1|give the reason|mbx: what
1|give the reason|mbx: what\n\nSigned-off-by: A <a@b>
1|"area: what"|no area
1|at most 72|mbx: 4567890123456789012345678901234567890123456789012345678901234567890123
0||mbx: °°°°°°°°45678904567890456789045678904567890456789045678904567890\n\nwhy
END
