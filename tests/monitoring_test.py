#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""contrib/prometheus, checked without Grafana: by promtool, and by the series that the
exporter really exports.

    tests/monitoring_test.py
"""
import json
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCE = Path(__file__).resolve().parent.parent
FOLDER = SOURCE / "contrib/prometheus"
faults = []


def check(holds, fault):
    if not holds:
        faults.append(fault)


def promtool(*words):
    done = subprocess.run(["promtool", *words], cwd=FOLDER, capture_output=True, text=True, check=False)
    check(done.returncode == 0, f"promtool {' '.join(words)}:\n{done.stdout}{done.stderr}")


def metric_names(text):
    return set(re.findall(r"\btesk[_:][a-z0-9_:]+\b", text))


dashboard = json.loads((FOLDER / "grafana-dashboard.json").read_text())
rules = (FOLDER / "tesk-recording.yml").read_text() + (FOLDER / "tesk-alerts.yml").read_text()
panels = dashboard["panels"]
queries = [(panel["title"], target["expr"]) for panel in panels for target in panel["targets"]]
queries += [(each["name"], each["expr"]) for each in dashboard["annotations"]["list"]]

promtool("check", "config", "prometheus.yml")
promtool("test", "rules", "tesk-tests.yml", "tesk-tests-week.yml")

# With Grafana's variables replaced, each query must be valid PromQL.
with tempfile.NamedTemporaryFile("w", suffix=".yml") as file:
    plain = [re.sub(r"\$__rate_interval", "1m", expr) for _, expr in queries]
    rows = [{"record": f"panel:{i}", "expr": expr} for i, expr in enumerate(plain)]
    json.dump({"groups": [{"name": "panels", "rules": rows}]}, file)
    file.flush()
    promtool("check", "rules", file.name)

exported = {name for source in (SOURCE / "src/tesk_exporter").glob("*metrics.cpp")
            for name in re.findall(r'"(tesk_[a-z_]+)"', source.read_text())}
recorded = set(re.findall(r"record: (\S+)", rules))
for name in metric_names(rules.replace("tesk-", "")) | metric_names(json.dumps(dashboard)):
    stem = re.sub(r"_(total|info|bucket)$", "", name)
    check({name, stem} & (exported | recorded), f"nobody exports or records {name}")

# Each alert has a case that fires, and a text that names the board.
cases = (FOLDER / "tesk-tests.yml").read_text()
for alert in re.findall(r"alert: (\S+)", rules):
    check(alert in cases, f"{alert} has no case")

check(len({panel["id"] for panel in panels}) == len(panels), "two panels have one id")
cells = [(x, y) for panel in panels for place in [panel["gridPos"]]
         for x in range(place["x"], place["x"] + place["w"])
         for y in range(place["y"], place["y"] + place["h"])]
check(len(cells) == len(set(cells)) and max(cells)[0] < 24, "panels overlap, or leave the grid")
variables = {variable["name"] for variable in dashboard["templating"]["list"]} | {"__rate_interval"}
used = set(re.findall(r"\$\{?(\w+)", json.dumps(dashboard)))
check(used <= variables, f"unknown variables: {used - variables}")
shown = re.findall(r"^\| (.+?) \| `", (SOURCE / "docs/fleet.md").read_text(), re.M)
check(shown == [panel["title"] for panel in panels], f"docs/fleet.md lists {shown}")

sys.exit("\n".join(faults) or None)
