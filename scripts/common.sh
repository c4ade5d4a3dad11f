# Sourced by the commands at the top of the tree, by those of scripts, and by the tests of what is
# installed: what they all need before they can do their own work.

# The packages by what needs them. Everything comes from Debian.
packages_build=(g++ cmake ninja-build pkg-config libglib2.0-dev liblttng-ust-dev libcli11-dev
                libfmt-dev nlohmann-json3-dev)
packages_test=(libgtest-dev lttng-tools babeltrace2 procps jq)
packages_all=(clang clang-tidy clang-format cppcheck libclang-rt-14-dev llvm gcovr valgrind python3
              mmdebstrap dpkg-dev file systemd g++-aarch64-linux-gnu g++-s390x-linux-gnu
              relacy-dev)
packages_bench=(python3 valgrind binutils strace lttng-tools dbus libsystemd-dev redis-server
                libhiredis-dev libgrpc++-dev protobuf-compiler-grpc protobuf-compiler)

say() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
}

fail() {
    say "$*"
    exit 1
}

# Installs what of the given packages is missing; says what it does, since that takes a while.
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
}

# configure_and_build PRESET [cmake option..]: quiet when all goes well.
configure_and_build() {
    local preset=$1
    shift
    local log=build/$preset.log
    mkdir -p build
    say "building preset $preset in build/$preset (the first time takes a minute or two)"
    if ! { cmake --preset "$preset" "$@" && cmake --build --preset "$preset"; } >"$log" 2>&1; then
        grep -E 'error|FAILED|Error' "$log" | head -n 20 >&2
        fail "the build of preset $preset failed: see $log"
    fi
}
