# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash disable=SC2034 # sourced; the lists are for the scripts that source it
# Functions and lists that the commands of the tree share: packages, builds, messages. Sourced by them
# and by the tests of the installation.

# The packages, by purpose. All come from Debian.
packages_build=(g++ cmake ninja-build pkg-config libglib2.0-dev liblttng-ust-dev libcli11-dev
                libfmt-dev nlohmann-json3-dev libmicrohttpd-dev libsystemd-dev zlib1g-dev
                libsqlite3-dev liburing-dev libjs-dygraphs)
packages_debian=(debhelper dh-python dpkg-dev fakeroot python3)
packages_run_linux=(iproute2)
packages_test=(git libgtest-dev lttng-tools babeltrace2 procps jq curl python3-pytest)
packages_all=(clang clang-tidy clang-format cppcheck libclang-rt-14-dev llvm gcovr valgrind python3
              shellcheck pyflakes3 mypy mmdebstrap dpkg-dev file systemd g++-aarch64-linux-gnu
              g++-s390x-linux-gnu qemu-user-static prometheus prometheus-node-exporter chromium
              chromium-driver python3-selenium relacy-dev spin ccache lintian blhc abigail-tools
              diffoscope-minimal)
# For a real kernel in an emulated machine; the kernel itself is fetched and not installed.
packages_kernel=(qemu-system-x86 acpica-tools make cpio busybox-static ethtool python3 systemd libelf1
                 libssl3)
# The parts of the preset scene, which ./run builds: for all but --linux, for its shell, for --linux.
targets_run=(tesk-server teskctl teskboard)
targets_run_stay=(tesk-exporter page example_client)
targets_run_linux=(tesk-server teskctl dolm_ric_linux tesk-module-reader)
packages_bench=(python3 valgrind binutils strace lttng-tools dbus libsystemd-dev redis-server
                libhiredis-dev python3-redis python3-hiredis prometheus-node-exporter)

say() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
}

fail() {
    say "$*"
    exit 1
}

# Installs those of the given packages that are missing.
require_packages() {
    local missing=() package
    for package in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return

    local apt=(apt-get)
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null 2>&1 ||
            fail "these packages are missing; ask an administrator for: apt-get install ${missing[*]}"
        apt=(sudo apt-get)
    fi
    say "installing ${missing[*]} (once, takes some minutes)"
    local log
    log=$(mktemp)
    if ! { "${apt[@]}" update &&
        DEBIAN_FRONTEND=noninteractive "${apt[@]}" install -y --no-install-recommends "${missing[@]}"; } \
        >"$log" 2>&1 </dev/null; then
        tail -n 5 "$log" >&2
        rm -f "$log"
        fail "could not install ${missing[*]}: see the lines above"
    fi
    rm -f "$log"
    for package in "${missing[@]}"; do
        [[ $package != prometheus* ]] || stop_service "$package"
    done
}

# Debian starts the services that it installs; only the programs are needed.
stop_service() { # NAME
    local as_root=()
    [ "$(id -u)" -eq 0 ] || as_root=(sudo)
    if [ -d /run/systemd/system ]; then
        "${as_root[@]}" systemctl disable --now "$1" >/dev/null 2>&1 ||
            say "could not stop $1"
    else
        "${as_root[@]}" service "$1" stop >/dev/null 2>&1 || say "could not stop $1"
    fi
}

# Unpacks Debian's base system and nothing else into the folder, anew. It is fetched once.
make_clean_root() { # FOLDER
    local base=build/clean-root.tar
    mkdir -p build
    if [ ! -f "$base" ]; then
        say "fetching a base system (once, takes some minutes)"
        timeout 900 mmdebstrap --quiet --format=tar --variant=minbase bookworm "$base.new" ||
            fail "the base system could not be fetched"
        mv "$base.new" "$base"
    fi
    rm -rf "$1"
    mkdir "$1"
    tar -C "$1" -xf "$base"
    cp /etc/resolv.conf "$1/etc/"
}

# Runs the command without this machine's variables but for PATH, HOME and the proxies of the package client.
in_empty_environment() { # COMMAND..
    local kept=(HOME="${HOME:-/root}" PATH="$PATH") name
    for name in http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY; do
        [ -z "${!name-}" ] || kept+=("$name=${!name}")
    done
    env -i "${kept[@]}" "$@"
}

# Shows the progress of a build on standard error, [n/m], in place on a terminal, else every 15 s.
show_progress() {
    local line next=$((SECONDS + 15))
    while IFS= read -r line; do
        [[ $line =~ ^\[[0-9]+/[0-9]+\] ]] || continue
        if [ -t 2 ]; then
            printf '\r%s: %.70s\033[K' "${0##*/}" "$line" >&2
        elif [ "$SECONDS" -ge "$next" ]; then
            say "${line%%]*}]"
            next=$((SECONDS + 15))
        fi
    done
    [ ! -t 2 ] || printf '\r\033[K' >&2
}

# A build that is made twice compiles once: that of tests/bare_root_test.sh is that of ./test. A cache that the
# caller has set up serves as well. Objects with a precompiled header are not cached: the compiler crashed on a header
# from the cache.
use_compiler_cache() {
    [ -z "${CMAKE_CXX_COMPILER_LAUNCHER-}" ] || return 0
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
    export CCACHE_DIR=$PWD/build/ccache CCACHE_SLOPPINESS=time_macros,locale
}

# configure_and_build PRESET [cmake option..] [--target TARGET..]: builds the targets, all by default.
# The log is build/PRESET.log.
configure_and_build() {
    local preset=$1 options=()
    shift
    while [ $# -gt 0 ] && [ "$1" != --target ]; do
        options+=("$1")
        shift
    done
    local log=build/$preset.log
    mkdir -p build
    say "building preset $preset in build/$preset"
    if ! { cmake --preset "$preset" "${options[@]}" && cmake --build --preset "$preset" "$@"; } 2>&1 |
        tee "$log" | show_progress; then
        grep -E 'error|FAILED|Error' "$log" | head -n 20 >&2
        fail "the build of preset $preset failed: see $log"
    fi
    ! grep -q 'ninja: no work to do' "$log" || say "preset $preset is up to date"
}
