# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# Sourced by the scripts of emulated machines. Each line of the result is "ok" or "FAILED"; the status
# is the number of failures, 99 at most.
failures=0

check() { # NAME COMMAND..
    name=$1
    shift
    if "$@" >/tmp/check 2>&1; then
        echo "ok $name"
    else
        failures=$((failures + 1))
        echo "FAILED $name: $*"
        cat /tmp/check
    fi
}

seconds() { cut -d . -f 1 /proc/uptime; } # since boot

# Repeats the command until it succeeds, for 20 s.
await() {
    end=$(($(seconds) + 20))
    until "$@" >/tmp/await 2>&1; do
        if [ "$(seconds)" -ge $end ]; then
            cat /tmp/await
            return 1
        fi
        sleep 0.02
    done
}

says() { # TEXT COMMAND..: whether the command's output contains the text
    text=$1
    shift
    output=$("$@" 2>&1)
    case $output in
    *"$text"*) true ;;
    *)
        echo "no $text in: $output"
        false
        ;;
    esac
}

not() { ! "$@"; }

end() {
    [ $failures -lt 99 ] || failures=99
    exit $failures
}
