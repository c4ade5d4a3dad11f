#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the commands of the pages and compares their output: pages_test.sh BUILD_DIR PAGE..
# CONTRIBUTING.md says how a page is written. Its console blocks run in one shell, in a private folder,
# with a server of their own unless the page starts one. A command must end with status 0, unless the
# next one is "echo $?"; the output of one with & is shown under the command during which it is
# written, in any order. Of a man page the EXAMPLES are run, and their status is checked.
set -u
export LC_ALL=C.UTF-8 # for the degree sign

declare -A excused=(
    [./test]="runs all tests, this one among them" [cmake]="builds the tree"
    [promtool]="run by monitoring_test.py" [prometheus]="as in exporter_prometheus_test.sh"
    [./run]="ends with Ctrl-C" [scripts/fleet-trial]="takes long"
    [./bench]="takes long" [./soak]="takes long" [./fuzz]="takes long"
    [scripts/build-packages]="builds the tree" [scripts/sysroot]="takes long" [gdb]="needs a terminal"
    [scripts/build-in-root]="takes long"
    [mkdir]="changes the machine" [apt-get]="changes the machine" [adduser]="changes the machine" [ldconfig]="changes the machine"
    [tesk-module-reader]="shows this machine's ports" [tesk-exporter]="run by exporter_system_test"
    [systemctl]="needs the installed service" [journalctl]="needs the installed service"
    [scripts/trace-session]="run by zel_test in each of these forms, with a session daemon"
    [lttng]="as scripts/trace-session does" [babeltrace2]="as scripts/trace-session does"
)

shape() {
    sed -E 's/[[:space:]]+/ /g; s/^ //; s/ $//' |
        if [ "$mode" = exactly ]; then cat; else sed -E 's/-?[0-9]+([.:][0-9]+)*/N/g'; fi
}

# Converts the expected line to a glob pattern.
pattern() {
    shape | sed 's/[][\\*?]/\\&/g; s/^\.\.\.$/*/'
}

fail() {
    printf '%s:%s: %s\n' "$page" "$line_number" "$*" >&2
    exit 1
}

wait_for() {
    local deadline=$((SECONDS + 20))
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.05
    done
}

written() {
    tail -c "+$((seen + 1))" "$log"
}

has_written() {
    [ -n "$(written)" ]
}

as_shown() {
    local actual shown
    actual=$(written | shape) shown=$(pattern <<<"$expected")
    # shellcheck disable=SC2053 # a pattern
    [[ $actual == $shown ]] && return
    # shellcheck disable=SC2053
    [ -n "$jobs" ] && [[ $(sort <<<"$actual") == $(sort <<<"$shown") ]]
}

# Interrupts a command that doesn't end by itself, once it has written something, as Ctrl-C does.
interrupted() {
    eval "$1 &"
    wait_for has_written || return 1
    kill -INT $!
    wait $!
}

run() {
    [ -n "$command" ] || return 0
    local mode=$mode
    [ "$command" = 'echo $?' ] && mode=exactly
    [ "$status" = 0 ] || [ "$command" = 'echo $?' ] || fail "status $status of the command before"
    if [[ $command =~ ^teskctl.*\ (watch|top|ping)\  && ! $command =~ \ (--for|--count|-c)\  ]]; then
        interrupted "$command" >>"$log" 2>&1 </dev/null
    else
        [[ $command == *'&' ]] && jobs=yes
        eval "(exit $status); $command" >>"$log" 2>&1 </dev/null
    fi
    status=$?
    [[ $command == *tesk-server*'&' ]] && { wait_for teskctl capabilities || fail "no server"; }
    wait_for as_shown || fail "$command
-- shown:
$expected
-- written, with status $status:
$(written)"
    seen=$(stat -c %s "$log")
    command=''
}

as_markdown() {
    case $page in
    *.md) cat "$page" ;;
    *)
        echo '```console'
        sed -n '/^\.SH EXAMPLES/,/^\.SH [^E]/p' "$page" | sed -n '/^\.nf/,/^\.fi/p' |
            sed -E '/^\./d; s/^ +//; s/\\-/-/g; s/\\\(aq/'"'"'/g; s/\\\(dq/"/g; s/\\e/\\/g; s/^.+$/$ &\n.../'
        echo '```'
        ;;
    esac
}

check_page() {
    local line word block='' mode='' command='' expected='' jobs='' status=0 seen=0 line_number=0
    while IFS= read -r line; do
        line_number=$((line_number + 1))
        case $block:$line in
        :'```'*) read -r block mode <<<"${line#'```'}" ;;
        console:'```' | console:'$ '*)
            run
            [ "$line" = '```' ] && block='' || command=${line#'$ '} expected=''
            ;;
        *:'```') block='' ;;
        console:*) expected+=${expected:+$'\n'}$line ;;
        c:* | python:*) [ -z "$mode" ] || printf '%s\n' "$line" >>"$mode" ;;
        sh:[!\#\ ]*)
            read -r word _ <<<"${line#ZEL_GROUPS=all }"
            [ -n "${excused[$word]-}" ] || fail "neither run nor excused: $word"
            ;;
        esac
    done < <(as_markdown)
    [ "$status" = 0 ] || fail "status $status of the last command"
}

source=$(realpath "$(dirname "$0")/..")
build=$(realpath "$1")
shift
for page in "$@"; do
    (
        page=$source/$page
        place=$(mktemp -d)
        trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$place"' EXIT
        log=$place/log
        mkdir -p "$place/here/build" "$place/bin"
        cd "$place/here" || exit 1
        ln -s "$source"/{run,scripts,examples,python,src,docs,contrib} .
        ln -s "$build" build/release && ln -s "$build" build/scene && ln -s "$build" build/example
        : >"$log"
        ln -s /bin/true "$place/bin/cmake" # the programs of ./run are built already
        export MBX_DIR=$place/mbx DOLM_RIC_SOCKET=$place/board.sock DOLM_RIC_PORT_MAP=$place/ports PATH=$place/bin:$build/bin:$PATH
        if ! grep -q '^\$ .*tesk-server.*&$' "$page"; then
            tesk-server &
            wait_for teskboard ports || exit 1
        fi
        check_page
    ) || exit 1
done
