#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# A real Prometheus scrapes tesk-exporter: a laser warms up on the board, an alert fires with the labels
# of its port, the laser cools down, the alert resolves. Called with the build folder; exits with 77
# without Prometheus.
set -euo pipefail
build=$1
. "$(dirname "$0")/../scripts/common.sh"
. "$(dirname "$0")/expect.sh"
command -v prometheus >/dev/null && command -v python3 >/dev/null || exit 77
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; wait; rm -rf "$work"' EXIT
export MBX_DIR=$work/mbx DOLM_RIC_SOCKET=$work/board.sock DOLM_RIC_PORT_MAP=$work/ports

free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
exporter=127.0.0.1:$(free_port) prometheus=127.0.0.1:$(free_port)
printf '# tesk-ports 1\n1\teth1\n' >"$DOLM_RIC_PORT_MAP"
cat >"$work/prometheus.yml" <<END
global: { scrape_interval: 200ms, evaluation_interval: 200ms }
rule_files: [$work/rules.yml]
scrape_configs:
  - job_name: tesk
    static_configs: [{ targets: ["$exporter"] }]
END
cat >"$work/rules.yml" <<'END'
groups:
  - name: test
    rules:
      - alert: ModuleInAlarm
        expr: tesk_port_grade{grade=~"low_alarm|high_alarm"} == 1
END

"$build/bin/tesk-server" &
"$build/bin/tesk-exporter" --listen "$exporter" --interval 0.2 &
prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/data" \
    --web.listen-address="$prometheus" --log.level=error &
monitor=$!

shows() { # TEXT QUERY
    promtool query instant "http://$prometheus" "$2" 2>/dev/null | grep -qF "$1"
}
is_empty() { # QUERY
    local answer
    answer=$(promtool query instant "http://$prometheus" "$1" 2>&1) && [ -z "$answer" ]
}
firing='ALERTS{alertstate="firing"}'
await $monitor shows '=> 1 @' 'up{job="tesk"} == 1 and on(instance) tesk_up == 1'
await $monitor shows 'interface="eth1"' 'tesk_port_temperature_celsius{port="1"}'
is_empty "$firing" || fail "an alert fires before anything has happened"
"$build/bin/teskboard" set 1 temperature=90C
await $monitor shows 'alertname="ModuleInAlarm"' "$firing"
for label in 'grade="high_alarm"' 'interface="eth1"' 'measurement="temperature"' 'port="1"'; do
    shows "$label" "$firing" || fail "the alert has no $label"
done
# Grades are read once a minute; a change of the link reads them at once.
"$build/bin/teskboard" set 1 temperature=40C
"$build/bin/teskboard" link 1 down
await $monitor is_empty "$firing"
echo "the alert fired and resolved"
