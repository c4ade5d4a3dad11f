# SPDX-License-Identifier: Apache-2.0
"""exporter - the cost of tesk-exporter with 512 ports, beside node_exporter's textfile collector with
the same series."""
import http.client
import pathlib
import re
import socket
import subprocess
import threading
import time

from launcher import BIN, SERVER_CORE, Tesk, tasks, wait_until

PORTS = 512
SHARED_FOR = 0.3  # seconds; the exporter reuses a body that is younger
SYSTEMS = {"exporter": "tesk-exporter", "node_exporter": "node_exporter, textfile"}


def free_address():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return f"127.0.0.1:{probe.getsockname()[1]}"


def get(address, path):
    connection = http.client.HTTPConnection(address, timeout=20)
    connection.request("GET", path)
    answer = connection.getresponse()
    body = answer.read()
    connection.close()
    return answer.status, body


def answers(address, path):
    try:
        return get(address, path)[0] == 200
    except OSError:
        return False


def cpu_ms(pid):
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks(pid)) / 1e6


def status_kib(pid, key):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(rf"{key}:\s+(\d+)", text)[1])


def measure_exporter(bench):
    measure_lanes(bench)
    launcher = bench.launcher
    server = Tesk(launcher, SERVER_CORE, ports=PORTS)
    program, address = start_exporter(launcher, server)
    idle_share(bench, program["exporter"].pid)
    scrape_both(bench, program, address, "exporter")
    for name in SYSTEMS:
        time.sleep(1)
        bench.add("exporter memory", "resident memory, between scrapes", "KiB", name,
                  status_kib(program[name].pid, "VmRSS"))
        bench.add("exporter peak", "resident memory, at most", "KiB", name,
                  status_kib(program[name].pid, "VmHWM"))
    for _ in range(bench.rounds):
        event(bench, server, address["exporter"])
    launcher.end_all()


def measure_lanes(bench):
    """The same with details, each module of 8 lanes."""
    details = bench.launcher.new_folder() / "details"
    server = Tesk(bench.launcher, SERVER_CORE, ports=PORTS, env={"DOLM_RIC_DETAILS": str(details)})
    subprocess.run([BIN / "teskboard", "set", f"0-{PORTS - 1}", "rx-power.7=-3dBm"],
                   env=server.env, check=True, stdout=subprocess.DEVNULL)
    program, address = start_exporter(bench.launcher, server)
    scrape_both(bench, program, address, "exporter lanes", "8 lanes: ")
    bench.launcher.end_all()


def start_exporter(launcher, server):
    """The programs and the addresses by name, so far of the exporter only."""
    address = {name: free_address() for name in SYSTEMS}
    program = launcher.run(
        [BIN / "tesk-exporter", "--listen", address["exporter"], "--ports", f"0-{PORTS - 1}"],
        SERVER_CORE, server.env)
    wait_until(lambda: answers(address["exporter"], "/readyz"), "the exporter is ready")
    return {"exporter": program}, address


def scrape_both(bench, program, address, key, title=""):
    launcher = bench.launcher
    folder = launcher.new_folder()
    body = get(address["exporter"], "/metrics")[1].decode()
    # node_exporter has the series of the process itself.
    (folder / "tesk.prom").write_text(re.sub(r"^(# \w+ )?process_.*\n", "", body, flags=re.M))
    program["node_exporter"] = launcher.run(
        ["prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
         f"--collector.textfile.directory={folder}",
         f"--web.listen-address={address['node_exporter']}"], SERVER_CORE, stderr=subprocess.DEVNULL)
    wait_until(lambda: answers(address["node_exporter"], "/metrics"), "node_exporter serves")
    for number in range(2 * bench.rounds):
        time.sleep(SHARED_FOR)
        for name in list(SYSTEMS)[:: 1 if number % 2 else -1]:
            scrape(bench, name, program[name].pid, address[name], key, title)


def scrape(bench, name, pid, address, key, title):
    before, start = cpu_ms(pid), time.monotonic()
    body = get(address, "/metrics")[1]
    bench.add(f"{key} scrape", f"{title}a scrape: time", "ms", name, 1000 * (time.monotonic() - start))
    bench.add(f"{key} cpu", f"{title}a scrape: processor time", "ms", name, cpu_ms(pid) - before)
    bench.add(f"{key} series", f"{title}series", "", name,
              sum(not line.startswith(b"#") for line in body.splitlines()))


def idle_share(bench, pid):
    """Adds the processor time over one interval of reads, without scrapes."""
    time.sleep(1)
    before, start = cpu_ms(pid), time.monotonic()
    time.sleep(15)
    share = (cpu_ms(pid) - before) / (1000 * (time.monotonic() - start))
    bench.add("exporter idle", "idle: share of a core", "%", "exporter", 100 * share)


def event(bench, server, address):
    """Removes a module and adds the time from teskctl's line to that of /events."""
    seen = {}

    def read(name, lines):
        for line in lines:
            if b'"removed"' in line or b'"not present"' in line:
                seen[name] = time.monotonic()
                return

    watch = subprocess.Popen([BIN / "teskctl", "--json", "watch", "--sfp", "7"],
                             env=server.env, stdout=subprocess.PIPE)
    stream = http.client.HTTPConnection(address, timeout=20)
    stream.request("GET", "/events")
    events = stream.getresponse()
    while not events.readline().startswith(b"id: "):
        pass
    watch.stdout.readline()
    readers = [threading.Thread(target=read, args=each)
               for each in (("teskctl", watch.stdout), ("events", iter(events.readline, b"")))]
    for reader in readers:
        reader.start()
    subprocess.run([BIN / "teskboard", "remove", "7"], env=server.env, check=True,
                   stdout=subprocess.DEVNULL)
    for reader in readers:
        reader.join(20)
    watch.kill()
    watch.wait()
    stream.close()
    subprocess.run([BIN / "teskboard", "insert", "7", "link=up"],
                   env=server.env, check=True, stdout=subprocess.DEVNULL)
    bench.add("exporter event", "delay of a change in /events behind teskctl watch", "ms",
              "exporter", 1000 * (seen["events"] - seen["teskctl"]))
