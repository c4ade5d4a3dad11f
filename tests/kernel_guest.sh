#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2086,SC2317 # no path here has a blank; functions are called by name
# The part of kernel_test.sh that runs inside the emulated machine: the server as it ships, the reader
# and teskctl as users of their own, on ports that the kernel has.
server_user=900 reader_user=901
socket=/run/tesk-module-reader/socket
cages=/sys/kernel/debug/cageports sfps=/sys/kernel/debug/cagesfp
# shellcheck source=testkit/kernel/guest.sh
. /t/guest.sh
export MBX_DIR=/run/mbx

as() { # USER CAPABILITIES COMMAND..
    user=$1 capabilities=$2
    shift 2
    /bin/setpriv --reuid "$user" --regid "$user" --clear-groups --bounding-set "-all$capabilities" \
        --inh-caps "-all$capabilities" --ambient-caps "-all$capabilities" "$@"
}

set_cage() { echo "$3" >"$cages/cage$1/$2"; } # NUMBER WHAT VALUE
set_sfp() { echo "$3" >"$sfps/sfp$1/$2"; }

put() { # FOLDER IMAGE
    for memory in a0 a2 bank1; do
        [ ! -f "/t/images/$2.$memory" ] || cat "/t/images/$2.$memory" >"$1/$memory"
    done
}

shows_serial() { says "\"serial\":\"$2\"" teskctl --json sfp "$1"; } # PORT SERIAL
shows_link() { says "\"link\":\"$2\"" teskctl --json status "$1"; }  # PORT STATE
shows_none() { says '"module":"not present"' teskctl --json sfp "$1"; }

# The reader ends with its last client; this loop replaces tesk-module-reader.socket of systemd.
serve_reader() { # CAPABILITIES
    while :; do
        rm -f $socket
        systemd-socket-activate --seqpacket -l $socket /bin/setpriv --reuid $reader_user \
            --regid $reader_user --clear-groups --bounding-set "-all$1" --inh-caps "-all$1" \
            --ambient-caps "-all$1" tesk-module-reader 2>>/run/reader.log
    done
}

start_reader() { # CAPABILITIES
    serve_reader "$1" &
    reader_loop=$!
    until [ -S $socket ]; do usleep 10000; done
    chown $server_user $socket
}

stop_reader() {
    kill $reader_loop
    killall systemd-socket-activate tesk-module-reader 2>/dev/null
    wait $reader_loop 2>/dev/null
    rm -f $socket
}

start_server() {
    as $server_user "" tesk-server 2>/run/server.log &
    server_shell=$!
    await teskctl --timeout 1 ping -c 1 || {
        echo "FAILED the server starts"
        cat /run/server.log
        exit 99
    }
    server=$(pidof tesk-server)
}

begin() {
    cd /modules || exit 1
    insmod cageports.ko ports=5 ioctl_only=1
    for module in i2c-dev libphy phylink mdio-i2c cagesfp sfp; do
        insmod $module.ko || exit 1
    done
    bus=$(cat $sfps/sfp1/bus)
    mkdir -p /etc/tesk /run/mbx /run/dolm_ric /run/tesk-module-reader
    chown $server_user /run/mbx /run/dolm_ric
    chown $reader_user "/dev/i2c-$bus"
    cat >/etc/tesk/ports <<END
0 cage0
1 cage1
2 cage2
3 sfp0
4 sfp1 i2c=$bus
5 cage4
6 cage3 # slow
7 elsewhere
END
    for port in cage0 cage1 cage2 cage3 cage4 sfp0 sfp1; do ip link set $port up; done
    for port in 0 3; do
        put $cages/cage$port made-sfp
        set_cage $port present 1
        set_cage $port carrier 1
    done
    for port in 0 1; do
        put $sfps/sfp$port made-sfp
        set_sfp $port present 1
    done
    await grep -q 1 /sys/class/net/sfp0/carrier
}

modules_come_and_go() {
    teskctl --json watch --sfp 0-5 >/run/watched 2>&1 &
    watcher=$!
    for port in 0 3 4; do check "port $port has its module" await shows_serial $port 0001; done
    check "an empty cage is empty" shows_none 1
    put $cages/cage1 made-sfp
    set_cage 1 present 1
    check "an insertion is seen" await shows_serial 1 0001
    check "and is in the history" await says '"port":1,"presence":"present and ready"' teskctl --json history sfp
    for port in 0 3 4; do
        check "port $port's module was there, not inserted" \
            says 0 sh -c "teskctl --json history sfp | grep -c '\"port\":$port,'"
    done

    : >/run/watched
    set_cage 0 present 0
    put $cages/cage0 made-other-sfp
    set_cage 0 present 1
    check "a swap between two polls is seen" await shows_serial 0 0002
    check "as a removal and an insertion" await swap_was_told
    set_cage 1 present 0
    check "a removal is seen" await shows_none 1
    kill $watcher
}

swap_was_told() {
    [ "$(grep '"port":0' /run/watched | sed 's/.*"module":"\([^"]*\)".*"serial":\([^,]*\),.*/\1 \2/' |
        tr '\n' ,)" = 'not present "",optical "0002",' ] || { cat /run/watched; false; }
}

sfp_driver_is_followed() {
    check "the kernel's sfp driver raises the link" await shows_link 3 operational
    set_sfp 0 los 1
    check "LOS takes the link down" await shows_link 3 "not operational"
    set_sfp 0 los 0
    check "and back" await shows_link 3 operational
    set_sfp 0 nak 1
    check "a module that answers nothing is no module" await shows_none 3
    set_sfp 0 nak 0
    check "until it answers" await shows_serial 3 0001
    set_sfp 0 present 0
    check "a removal takes the link down" await shows_link 3 "not operational"
    check "and the module" await shows_none 3
    set_sfp 0 present 1
    check "all is back" await shows_serial 3 0001
    ip link set sfp0 down
    check "a port that was stopped is down" await shows_link 3 "not operational"
    ip link set sfp0 up
    check "and is started again" await shows_link 3 operational
}

# Succeeds if the command was answered during a single reading of the slow module.
answers_meanwhile() { # COMMAND..
    until grep -q 1 $cages/cage3/reading; do usleep 1000; done
    before=$(cat $cages/cage3/reads)
    "$@" && [ "$(cat $cages/cage3/reads)" = "$before" ] && grep -q 1 $cages/cage3/reading
}

nobody_waits_for_a_bus() {
    check "the slow port has its module" await shows_serial 6 0001
    set_cage 3 delay_us 40000 # 1.28 s for 32 bytes
    for command in "pm 6" "pm 0" "status 0" "sfp 0"; do
        check "teskctl $command meanwhile" await answers_meanwhile teskctl $command
    done
    set_cage 0 present 0
    check "another port's removal is seen" await shows_none 0
    set_cage 0 present 1
    set_cage 3 delay_us 0

    set_sfp 0 khz 100
    before=$(cat $sfps/sfp0/bytes)
    check "a bus of 100 kHz gives values" await says 25.7 teskctl pm 3
    check "which are read again and again" await bytes_were_read "$before"
    set_sfp 0 khz 0
}

bytes_were_read() { [ "$(cat $sfps/sfp0/bytes)" -gt $(($1 + 100)) ]; }

errors_stay_where_they_are() {
    check "port 0 has its module" await shows_serial 0 0002
    set_cage 0 error 5
    check "a module that can't be read goes" await shows_none 0
    check "port 3 has its values" says 25.7 teskctl pm 3
    set_cage 0 error 0 # the port is read again within a minute
}

comes_back() { await shows_serial 0 0002 || await shows_serial 0 0002 || await shows_serial 0 0002; }

falls() { teskctl --json history status | grep -c "\"port\":$1,\"state\":\"down\""; }

falls_are() { says "$2" falls "$1"; }

flaps_are_counted() {
    teskctl --json watch --status 0-2 >/dev/null 2>&1 &
    watcher=$!
    check "port 0 is up" await shows_link 0 operational
    before=$(falls 0)
    set_cage 0 flap 3
    check "three flaps in one message are three" await falls_are 0 $((before + 3))
    set_cage 0 flap 100000
    set_cage 0 carrier 0
    check "after 100000 more the link is down" await shows_link 0 "not operational"
    check "and the kernel has seen them all" says 100004 cat /sys/class/net/cage0/carrier_down_count
    set_cage 0 carrier 1
    check "and up again" await shows_link 0 operational
    kill $watcher
}

darken() { dd if=/dev/zero of=$cages/cage$1/a2 bs=1 seek=104 count=2 conv=notrunc 2>/dev/null; } # CAGE

fell_at=0 # seconds since boot, when the last step of a fall was done

# A fall within ten seconds of another one is added to that record.
burst_is_over() { [ $(($(seconds) - fell_at)) -gt 10 ]; }

light_age() { # PORT: age of its value, in whole seconds
    teskctl --json module "$1" | tr -d ' \n' | sed 's/.*"rx_power":{[^{}]*"age_s":\([0-9]*\).*/\1/'
}

light_was_read_since() { [ $(($(seconds) - $(light_age "$1"))) -gt $(($2 + 1)) ]; } # PORT SECONDS

explains() { # PORT VERDICT
    check "$2" await says "$2" teskctl why "$1" --last 1
    set_cage "${3:-$1}" carrier 1
}

# The kernel may report both at once.
is_uncertain() {
    verdict=$(teskctl why "$1" --last 1)
    case $verdict in
    *": set down, likely"* | *": not known, possible"*) true ;;
    *) false ;;
    esac
}

# Ports 0, 1, 2 and 5 are up, their modules receive light, and some readings were made.
all_is_well() {
    for cage in 0 1 2 4; do
        put $cages/cage$cage made-sfp
        set_cage $cage ext_state 255
        set_cage $cage present 1
        ip link set cage$cage up
        set_cage $cage carrier 1
    done
    for port in 0 1 2 5; do await shows_serial $port 0001; done
    for port in 0 1 2 5; do await shows_link $port operational; done
    well_at=$(seconds)
    for port in 0 1 2 5; do
        check "port $port is well" await light_was_read_since $port "$well_at"
    done
    usleep 1200000 # a lost carrier is reported up to a second late: the reading must be older
    check "no fall goes on" await burst_is_over
}

falls_are_explained() {
    all_is_well
    ip link set cage0 down
    darken 1 && set_cage 1 carrier 0
    set_cage 2 ext_state 1 && set_cage 2 ext_substate 1 # link training, without frame lock
    set_cage 2 carrier 0
    unshare -n sleep 4 &
    usleep 100000
    ip link set cage4 netns $!
    fell_at=$(seconds)
    explains 0 "set down, likely"
    explains 1 "light lost, likely"
    explains 2 "negotiation failed, likely"
    explains 5 "interface moved, " 4 # likely if the kernel is slow

    wait $! # the kernel returns the interface
    all_is_well
    set_cage 0 present 0 && set_cage 0 carrier 0
    set_cage 1 ext_state 1 && set_cage 1 ext_substate 4 && set_cage 1 carrier 0
    set_cage 2 carrier 0
    usleep 100000
    ip link set cage2 down
    for _ in 1 2 3; do
        set_cage 4 carrier 0
        usleep 300000
        set_cage 4 carrier 1
        usleep 300000
    done
    fell_at=$(seconds)
    explains 0 "module pulled, likely"
    explains 1 "far side deaf, likely"
    check "what follows a fall is not certain to be its cause" await is_uncertain 2
    explains 5 "flapping, possible" 4

    all_is_well
    set_cage 0 carrier 0 && set_cage 0 present 0
    put $cages/cage0 made-other-sfp
    usleep 1500000
    set_cage 0 present 1
    set_cage 1 ext_state 2 && set_cage 1 carrier 0
    fell_at=$(seconds)
    explains 0 "module replaced, likely"
    explains 1 "no lock, likely"
    set_cage 1 ext_state 255
    shown_by_the_driver
}

was_counted() { [ "$(cat $cages/cage1/counter_reads)" -ge "$1" ]; } # TIMES
is_counted() { await was_counted "$1" || await was_counted "$1"; }

# Port 1 has errors, counted twice before it falls; FEC of port 2 is changed just before it falls, and the
# driver leaves port 6.
shown_by_the_driver() {
    all_is_well
    sleep 3 # so that port 1 is up for long enough
    set_cage 1 counter_reads 0
    check "the driver of port 1 is asked for its counters" is_counted 1
    set_cage 1 fec_uncorrectable 12
    check "and again" is_counted 2
    usleep 1500000 # a lost carrier is reported up to a second late
    set_cage 1 fec_uncorrectable 9000
    set_cage 1 carrier 0
    ethtool --set-fec cage2 encoding baser
    set_cage 2 fail 1
    set_cage 2 carrier 0
    explains 1 "errors rose, likely"
    check "by what came before the fall" says "12 blocks couldn't be corrected" teskctl why 1 --last 1
    explains 2 "settings differ, likely"
    check "and its error is named" says "The driver reported an error: fw_fatal." teskctl why 2 --last 1
    usleep 2000000 # so that messages about port 6 are not taken for earlier ones
    echo cageports.3 >/sys/bus/platform/drivers/cageports/unbind
    explains 6 "driver gone, likely" 3
    put $cages/cage0 made-other-sfp
    check "port 0 has its module" await shows_serial 0 0002
    set_cage 1 fec_slow_us 1000000
    set_cage 1 counter_reads 0
}

was_asked_rarely() { [ "$(cat $cages/cage1/counter_reads)" -le 2 ]; }

reader_is_confined() {
    process=$(pidof tesk-module-reader)
    for line in "Uid:	$reader_user" "CapPrm:	0000000000001000" "CapEff:	0000000000001000" \
        "CapInh:	0000000000000000" "CapAmb:	0000000000000000" "CapBnd:	0000000000001000" \
        "NoNewPrivs:	1" "Seccomp:	2"; do
        check "the reader has $line" says "$line" cat "/proc/$process/status"
    done
    check "the server has no right" says "CapEff:	0000000000000000" cat /proc/$server/status
    check "the server is no root" says "Uid:	$server_user" cat /proc/$server/status
    ethtool -m cage0 >/tmp/ethtool
    check "the user of the server may ask" as $server_user "" compare_module made-other-sfp 0 \
        </tmp/ethtool
    check "no other user may" not as 902 "" compare_module made-other-sfp 0 </tmp/ethtool
}

compare() { # INTERFACE IMAGE PORT..
    ethtool -m "$1" >/tmp/ethtool || return 1
    shift
    as $server_user "" compare_module "$@" </tmp/ethtool
}

# Ports 2 and 5 have the same module: one is read by page, the other by the operations of older drivers, which
# reach no page above 3.
compare_image() { # IMAGE
    put $cages/cage2 "$1"
    put $cages/cage4 "$1"
    case $(hexdump -n 1 -e '"%02x"' $cages/cage2/a0) in
    18 | 19 | 1e) check "$1" compare cage2 "$1" 2 ;;
    *) check "$1" compare cage2 "$1" 2 5 ;;
    esac
    cat /tmp/check
}

# The whole output about the module of port 2, on one line.
module_says() { says "$1" sh -c 'teskctl --json module 2 | tr -d " \n"'; } # TEXT

a_module_is_shown_whole() {
    put $cages/cage2 made-cmis
    set_cage 2 present 1
    check "port 2's module is there" await shows_serial 2 C001
    check "its lanes of both banks" await module_says '"lane":15,"own":true'
    check "their limits" module_says '"rx_power":{"state":"valid","low_alarm":'
    check "its versatile diagnostics" await module_says '"kind":"snr","side":"host","lane":3,"value":20.0'
    check "with limits" module_says '"low_alarm":0.0,"low_warning":0.0,"high_warning":1e-10,"high_alarm":0.0001'
    set_cage 2 error 16 # EBUSY, as during an update of the firmware
    check "a module whose firmware is updated is busy" await module_says '"value":null,"state":"busy"'
    check "and keeps its identity" module_says '"serial":"C001"'
    check "which is no failure" module_says '"failures":0,"errors":[]'
    set_cage 2 error 0
    check "and has values again" await not module_says '"state":"busy"'
    check "those of before" module_says '"kind":"snr","side":"host","lane":3,"value":20.0'
}

# The reader has tested what the kernel supports, and has confined itself.
reader_is_ready() { grep -q "Seccomp:	2" "/proc/$(pidof tesk-module-reader)/status"; }

compare_with_ethtool() {
    set_cage 2 present 1
    set_cage 4 present 1
    for image in /t/images/*.a0; do
        image=${image##*/}
        compare_image "${image%.a0}"
    done
    check "beside the sfp driver, by i2c-dev" compare sfp1 made-sfp 4

    # A kernel that can't read modules by netlink: the reader uses the ioctl.
    echo 1 >$cages/no_netlink
    stop_reader
    start_reader ,+net_admin
    check "a reader on an older kernel" await reader_is_ready
    echo 0 >$cages/no_netlink
    for image in made-sfp made-external made-qsfp; do
        put $cages/cage4 $image
        check "$image, by the ioctl" compare cage4 $image 5
    done
    check "nothing was left out" says "port 5: 95 lines of ours, 95 of ethtool" \
        compare cage4 made-qsfp 5
}

without_the_right() {
    stop_reader
    start_reader ""
    check "the lack of the right is said" await grep -q "lacks CAP_NET_ADMIN" /run/server.log
    set_cage 0 carrier 0
    check "links go on" await shows_link 0 "not operational"
    set_cage 0 carrier 1
    check "up as well" await shows_link 0 operational
    check "it is said once" says 1 grep -c CAP_NET_ADMIN /run/server.log
    stop_reader
    start_reader ,+net_admin
    check "with the right modules are read again" await grep -q "read again" /run/server.log
}

begin
start_reader ,+net_admin
start_server
check "a port map is there" says "6	cage3" cat /run/dolm_ric/ports
modules_come_and_go
sfp_driver_is_followed
nobody_waits_for_a_bus
errors_stay_where_they_are
flaps_are_counted
falls_are_explained
reader_is_confined
a_module_is_shown_whole
compare_with_ethtool
without_the_right
check "a module that failed again and again comes back" comes_back
check "a driver that takes a second is asked for its counters" await was_counted 1
check "and left alone for long after that" was_asked_rarely
kill $server
check "the server ends in order" wait $server_shell
echo "the server said:"
cat /run/server.log
cat /run/reader.log
end
