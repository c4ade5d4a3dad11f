#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC2086,SC2317 # no path here has a blank; functions are called by name
# The part of systemd_test.sh that runs inside the emulated machine, when it has started all services.
# shellcheck source=testkit/kernel/guest.sh
. /t/guest.sh
cage=/sys/kernel/debug/cageports/cage0 sfp=/sys/kernel/debug/cagesfp/sfp1

as() { # USER GROUP COMMAND..
    user=$1 group=$2
    shift 2
    setpriv --reuid $user --regid $group --clear-groups "$@"
}

member() { as nobody tesk "$@"; }
process_of() { systemctl show -p MainPID --value $1; }
owner_of() { stat -c '%a %U:%G' "$1"; }
has_module() { says '"serial":"0001"' member teskctl --json sfp ${1-0}; } # [PORT]
has_none() { says '"module":"not present"' member teskctl --json sfp ${1-0}; }
put() { for memory in a0 a2; do cat /t/images/made-sfp.$memory >"$1/$memory"; done; } # FOLDER
kill_reader() {
    reader=$(process_of tesk-module-reader)
    kill -9 "$reader"
    check "the reader is started anew" await is_another tesk-module-reader "$reader"
}
is_another() { [ "$(process_of $1)" != "$2" ] && [ "$(process_of $1)" != 0 ]; } # UNIT PROCESS
metrics() { # [ADDRESS]
    bash -c 'exec 3<>/dev/tcp/$0/9816 && printf "GET /metrics HTTP/1.0\r\nHost: $0:9816\r\n\r\n" >&3 && cat <&3' ${1-127.0.0.1}
}

units_are_up() {
    for unit in tesk-server.service tesk-module-reader.socket tesk-exporter.service; do
        check "$unit is up after the boot" says active systemctl is-active $unit
    done
    check "/run/mbx" says "750 tesk:tesk" owner_of /run/mbx
    check "the mailbox" says "660 tesk:tesk" owner_of /run/mbx/tesk-server
    check "/run/dolm_ric" says "750 tesk:tesk" owner_of /run/dolm_ric
    check "the port map" says "640 tesk:tesk" owner_of /run/dolm_ric/ports
    check "the reader's directory" says "755 root:root" owner_of /run/tesk-module-reader
    check "the reader's socket" says "600 tesk:" owner_of /run/tesk-module-reader/socket
    check "the doctor misses the ports, and nothing else" says 1 sh -c "teskctl doctor | grep -c ^wrong"
}

numbers_without_a_configuration() {
    for module in i2c-dev libphy phylink mdio-i2c cagesfp sfp; do insmod /modules/$module.ko; done
    check "an interface that comes late is told of" await says "sfp1 appeared after the start" \
        journalctl -b -u tesk-server -p err -o cat
    check "and has no port" says "# tesk-ports 1" sed -n '$p' /run/dolm_ric/ports
    check "until the next start" systemctl restart tesk-server
    check "with the second number" says "1	sfp1" cat /run/dolm_ric/ports
    put $sfp
    echo 1 >$sfp/present
    check "and its module" await has_module 1
    ip netns add away
    ip link set sfp0 netns away
    kill_reader
    echo 0 >$sfp/present
    check "a reader after the first one has gone reads the second: a removal" await has_none 1
    echo 1 >$sfp/present
    check "and an insertion" await has_module 1
    printf '%s\n' '0 cage0' '1 cage1 poll=off' wrong >/etc/tesk/ports
    systemctl restart tesk-server
    check "a wrong line is an error of the server" says "ports:3: " journalctl -b -u tesk-server -p err -o cat
}

ports_come_to_life() {
    insmod /modules/cageports.ko ports=2 ioctl_only=0
    put $cage
    echo 1 >$cage/present
    check "a port that appears has its module" await has_module
    check "a wrong line is an error of the reader" says "ports:3: " journalctl -b -u tesk-module-reader -p err -o cat
    check "a member sees the names" says "cage0" member teskctl ports
    check "nobody else does" not as nobody nogroup cat /run/dolm_ric/ports
    check "the exporter sees the port" await says 'interface="cage0"' metrics
}

watch_sees_a_pull() {
    member teskctl --json watch --sfp 0 --count 2 >/tmp/watch &
    check "a watch has begun" await test -s /tmp/watch
    echo 0 >$cage/present
    check "teskctl watch says that the module was pulled" await grep -q '"module":"not present"' /tmp/watch
    echo 1 >$cage/present
    check "and it is back" await has_module
}

# The option together with the unit's filter, and a warning if only the option is set.
other_machines() {
    ip address add 192.0.2.7/32 dev lo
    echo 'TESK_EXPORTER_OPTIONS="--listen 192.0.2.7:9816"' >/etc/default/tesk-exporter
    systemctl restart tesk-exporter
    check "an address that the unit hides is said" await says "--print-drop-in" journalctl -b -u tesk-exporter -o cat
    rm /etc/default/tesk-exporter
    mkdir -p /etc/systemd/system/tesk-exporter.service.d
    tesk-exporter --listen 192.0.2.7:9816 --print-drop-in any >/etc/systemd/system/tesk-exporter.service.d/listen.conf
    systemctl daemon-reload
    systemctl restart tesk-exporter
    check "with the drop-in it is reached" await says tesk_up metrics 192.0.2.7
    rm -r /etc/systemd/system/tesk-exporter.service.d
    systemctl daemon-reload
    systemctl restart tesk-exporter
}

# The reader finds the interface, although its name differs from that in the configuration.
killed_units_come_back() {
    ip link set cage0 name wan
    check "a new name is seen" await says wan cat /run/dolm_ric/ports
    kill_reader
    echo 0 >$cage/present
    check "it reads: a removal" await has_none
    echo 1 >$cage/present
    check "and an insertion" await has_module
    check "what it hands on is its own" says "700 " owner_of /run/private/tesk-module-reader-known
    ip link set wan name cage0
    ip link set cage0 up
    echo 1 >$cage/carrier
    check "a link comes up" await says "0     operational" teskctl status 0
    echo 0 >$cage/carrier
    check "and falls" await says cage0 teskctl why 0
    server=$(process_of tesk-server)
    kill -9 "$server"
    check "the server is started anew" await is_another tesk-server "$server"
    check "and has the module" await has_module
    check "and the fall" says cage0 teskctl why 0
}

units_stop() {
    systemctl stop tesk-server
    check "the reader ends with the server" await says inactive systemctl is-active tesk-module-reader
    check "the server starts" systemctl start tesk-server
    check "with the module" await has_module
    check "no system call was refused with a signal" says 0 sh -c "journalctl -b | grep -c -e SIGSYS -e 31/SYS"
    check "no unit has failed" says 0 sh -c "systemctl --failed --no-legend | wc -l"
}

leaves_nothing() {
    dpkg --purge tesk-exporter tesk-server tesk-tools tesk-platform-linux libtesk-client0 tesk-platform-base
    check "a purge stops all units" not pgrep tesk
    check "and leaves nothing" says "" no_trace
}

no_trace() { [ -z "$(find /etc /run /usr /var -iname '*tesk*')" ]; }

units_are_up
numbers_without_a_configuration
ports_come_to_life
watch_sees_a_pull
other_machines
killed_units_come_back
units_stop
leaves_nothing
journalctl -b -u 'tesk-*' -o short-monotonic
end
