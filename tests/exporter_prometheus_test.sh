#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A real Prometheus scrapes tesk-exporter with the rules of contrib/prometheus, here without delays: a
# laser warms up on the board, the alert fires with the labels of its port, the laser cools down, the
# alert resolves; the server is killed, which fires another alert. Called with the build folder; exits
# with 77 without Prometheus.
set -euo pipefail
build=$1
. "$(dirname "$0")/../scripts/common.sh"
. "$(dirname "$0")/expect.sh"
type -P prometheus promtool curl python3 >/dev/null || exit 77
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
export MBX_DIR=$work/mbx DOLM_RIC_SOCKET=$work/board.sock DOLM_RIC_PORT_MAP=$work/ports

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
exporter=127.0.0.1:$(free_port) prometheus=127.0.0.1:$(free_port)
cat >"$work/prometheus.yml" <<END
global: { scrape_interval: 200ms, evaluation_interval: 200ms }
rule_files: [$work/recording.yml, $work/alerts.yml]
scrape_configs:
  - job_name: tesk
    static_configs: [{ targets: ["$exporter"] }]
END
for rules in recording alerts; do
    sed -E 's/^( +for:) .*/\1 0s/' "$(dirname "$0")/../contrib/prometheus/tesk-$rules.yml" >"$work/$rules.yml"
done

"$build/bin/tesk-server" &
server=$!
"$build/bin/tesk-exporter" --listen "$exporter" --interval 0.2 &
prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/data" \
    --web.listen-address="$prometheus" --log.level=error &
monitor=$!

shows() { # TEXT QUERY
    promtool query instant "http://$prometheus" "$2" 2>/dev/null | grep -qF "$1"
}
is_empty() { # QUERY
    [ "$(promtool query instant "http://$prometheus" "$1" 2>&1 || echo failed)" = "" ]
}
firing='ALERTS{alertstate="firing",port!="7"}' # port 7 has a module that can't be read
await $monitor shows 'alertname="TeskModuleNotReady"' 'ALERTS{alertstate="firing",port="7"}'
await $monitor shows '=> 1 @' 'up{job="tesk"} == 1 and on(instance) tesk_up == 1'
await $monitor shows 'interface="port1"' 'tesk_port_temperature_celsius{port="1"}'
curl -s "http://$exporter/metrics" | promtool check metrics || fail "promtool complains"
await $monitor is_empty "$firing" # it may fire while the server starts
"$build/bin/teskboard" set 1 temperature=90C
await $monitor shows 'alertname="TeskModuleInAlarm"' "$firing"
for label in 'grade="high_alarm"' 'interface="port1"' 'measurement="temperature"' 'port="1"' 'severity="critical"'; do
    shows "$label" "$firing" || fail "the alert has no $label"
done
# Grades are read once a minute; after a change of the link at once.
"$build/bin/teskboard" set 1 temperature=40C
"$build/bin/teskboard" link 1 down
await $monitor shows 'alertname="TeskPortDown"' "$firing"
await $monitor is_empty 'ALERTS{alertname="TeskModuleInAlarm"}'
"$build/bin/teskboard" link 1 up
await $monitor is_empty "$firing"
kill -KILL $server
await $monitor shows 'alertname="TeskServerDown"' "$firing"
echo "the alerts fired and resolved"
