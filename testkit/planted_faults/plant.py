#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""plant - plants faults in copies of the tree and runs the tests of the faulty part; see
./mutate. A fault is three or four parts of the file of faults:

    == FILE: the effect
    survives: the reason why no test can notice it (only where that is so)
    - a line of the old text, which occurs exactly once in the file
    + a line of the new text

FILE is below src/tesk_server; with a slash, below the root of the tree. "-" and "+" precede each line
without a blank."""
import argparse
import concurrent.futures
import os
import pathlib
import queue
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutate"
SERVER = "src/tesk_server/"
TIME_LIMIT = 90
# The tests of a file by the beginning of its path, in the first row that matches; the test that is
# most likely to notice a fault is first. Those of the server's modules follow each other in any
# case.
MODULE_TESTS = "hardware procedures subscriptions filter history memory life"
TESTS = {SERVER + "leaky_bucket": "filter", SERVER + "tesk_dolm_ric_pm": "procedures",
         SERVER + "tesk_dolm": "hardware", SERVER + "tesk_main": "life",
         SERVER + "tesk_event_queue": "life", SERVER + "tesk_mutex": "life",
         SERVER + "tesk_client_data": "subscriptions", SERVER + "tesk_mbx": "subscriptions",
         SERVER + "tesk_portsub": "filter", SERVER + "tesk_subscribe_port": "filter",
         SERVER + "tesk_history": "history", SERVER + "tesk_shell": "history",
         SERVER + "tesk_cache": "history", SERVER: "procedures",
         "src/tesk_client/": "tesk_client details",
         "src/platform/mbx/": "mbx_parts mbx",
         "src/platform/dolm_ric/linux/linux_ports": "linux_network",
         "src/platform/dolm_ric/linux/link_follower": "linux_links linux_network",
         "src/platform/linux_interfaces/port_config": "port_config",
         "src/platform/linux_interfaces/": "linux_links linux_reader",
         "src/platform/dolm_ric/linux/li": "linux_links",
         "src/platform/dolm_ric/linux/record_updates": "linux_links",
         "src/platform/dolm_ric/linux/": "details module_decode linux_modules",
         "src/platform/dolm_ric/fall": "fall_recorder",
         "src/platform/dolm_ric/": "details dolm_ric", "src/causes/": "causes",
         "src/history/": "chronicle", "src/forecast/": "forecast",
         "src/tesk_exporter/outlooks": "outlooks",
         "src/tesk_exporter/": "exporter exporter_follow outlooks chronicle",
         "src/tools/teskctl/exporter_commands": "exporter_system teskctl",
         "src/tools/teskboard/": "teskboard teskctl", "src/tesk_module_reader/": "linux_reader",
         "src/program/": "teskctl exporter", "src/tools/": "teskctl exporter", "python/": "python",
         "web/": "page"}
# These tests are scripts, and need the programs.
SCRIPTS = {"python": "tesk_client tesk-server teskboard teskctl",
           "page": "page tesk-exporter tesk-server teskboard teskctl"}


class Fault:
    def __init__(self, heading, where):
        name, self.what = (part.strip() for part in heading.split(":", 1))
        self.file = name if "/" in name else SERVER + name
        self.where, self.reason, self.old, self.new = where, "", [], []

    def tests(self):
        names = next((names for start, names in TESTS.items() if self.file.startswith(start)), "")
        if self.file.startswith(SERVER):
            names += " " + MODULE_TESTS
        return list(dict.fromkeys(names.split()))

    def planted(self, text):
        """The text with the fault, or None if the old text doesn't occur exactly once."""
        old, new = "\n".join(self.old), "\n".join(self.new)
        return text.replace(old, new) if text.count(old) == 1 else None


def read_faults(path):
    faults = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        where = f"{path}:{number}"
        if line.startswith("== ") and ":" in line:
            faults.append(Fault(line[3:], where))
        elif faults and line.startswith("survives:"):
            faults[-1].reason = line.removeprefix("survives:").strip()
        elif faults and line[:1] in ("-", "+"):
            (faults[-1].old if line[0] == "-" else faults[-1].new).append(line[1:])
        elif line.strip() and not line.startswith("#"):
            sys.exit(f"{where}: neither a heading nor a line of a fault: {line}")
    for fault in faults:
        source = ROOT / fault.file
        if not source.exists():
            sys.exit(f"{fault.where}: there is no {fault.file}")
        if not fault.tests():
            sys.exit(f"{fault.where}: TESTS of plant.py has no row for {fault.file}")
    return faults


class Copy:
    """A copy of the tree with a build directory of its own."""

    def __init__(self, number, tests):
        self.tests = tests
        self.tree = WORK / f"tree{number}"
        self.build = WORK / f"build{number}"
        self.environment = dict(os.environ, CMAKE_CXX_COMPILER_LAUNCHER="ccache",
                                CMAKE_C_COMPILER_LAUNCHER="ccache", GTEST_FAIL_FAST="1",
                                TESK_BUILD_DIR=self.build, PYTHONPATH=self.tree / "python",
                                PYTHONDONTWRITEBYTECODE="1")

    def prepare(self):
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                cwd=ROOT, capture_output=True, text=True, check=True).stdout
        for name in filter(None, listed.split("\0")):
            source, copied = ROOT / name, self.tree / name
            if not source.is_file():
                continue
            # A changed file gets the present time, so that it is built again; no other file does.
            if not copied.exists() or copied.read_bytes() != source.read_bytes():
                copied.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(source, copied)
                shutil.copymode(source, copied)
        self.run(["cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, "-DCMAKE_BUILD_TYPE=None",
                  "-DCMAKE_CXX_FLAGS=-O0"])
        for test in self.tests:
            self.run(self.build_command(test))
            if not self.passes(test):
                sys.exit(f"mutate: {test} fails without any fault")

    def build_command(self, test):
        targets = SCRIPTS.get(test, f"{test}_test").split()
        return ["cmake", "--build", self.build, "--target", *targets]

    def run(self, command):
        done = subprocess.run(command, capture_output=True, text=True, env=self.environment)
        if done.returncode != 0:
            sys.exit(f"mutate: {' '.join(map(str, command))}\n{done.stdout}{done.stderr}")

    def test_command(self, test):
        if test == "python":
            return ["env", f"LD_LIBRARY_PATH={self.build}/lib", "/usr/bin/python3", "-m", "pytest",
                    "-q", "-x", "-p", "no:cacheprovider", "-c", self.tree / "python/pyproject.toml",
                    self.tree / "tests/python"]
        if test == "page":
            return [self.tree / "tests/page_test.py", self.build]
        return [self.build / f"bin/{test}_test"]

    def passes(self, test):
        try:
            return subprocess.run(self.test_command(test), capture_output=True, timeout=TIME_LIMIT,
                                  stdin=subprocess.DEVNULL, env=self.environment).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def verdict(self, fault):
        source = self.tree / fault.file
        text = source.read_text()
        planted = fault.planted(text)
        if planted is None:
            return "not built: the old text must occur exactly once"
        source.write_text(planted)
        try:
            for test in fault.tests():
                built = subprocess.run(self.build_command(test), capture_output=True, text=True,
                                       env=self.environment)
                if built.returncode != 0:
                    return "not built: " + " ".join(line for line in built.stdout.splitlines()
                                                    if "error" in line)[:200]
                if not self.passes(test):
                    return f"noticed by {test}"
            return "survived"
        finally:
            source.write_text(text)


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--only", default="")
    parser.add_argument("--check", action="store_true")
    parser.add_argument("file", type=pathlib.Path, nargs="?",
                        default=ROOT / "testkit/planted_faults/faults.txt")
    arguments = parser.parse_args()
    faults = [fault for fault in read_faults(arguments.file)
              if arguments.only in fault.file + ": " + fault.what]
    if arguments.check:
        lost = [fault for fault in faults if fault.planted((ROOT / fault.file).read_text()) is None]
        for fault in lost:
            print(f"{fault.where}: the old text must occur exactly once in {fault.file}")
        return 1 if lost else 0
    print(f"mutate: {len(faults)} faults; preparing {arguments.jobs} copies", flush=True)
    tests = list(dict.fromkeys(test for fault in faults for test in fault.tests()))
    free = queue.Queue()
    for number in range(arguments.jobs):
        copy = Copy(number, tests)
        copy.prepare()
        free.put(copy)

    def judge(fault):
        copy = free.get()
        try:
            return copy.verdict(fault)
        finally:
            free.put(copy)

    survivors, unbuilt = [], []
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for number, (fault, verdict) in enumerate(zip(faults, pool.map(judge, faults)), 1):
            print(f"{number}/{len(faults)} {fault.file}: {fault.what}: {verdict}", flush=True)
            if verdict == "survived":
                survivors.append(fault)
            elif verdict.startswith("not built"):
                unbuilt.append(fault)
    print(f"\n{len(faults)} faults, {len(survivors)} survived, {len(unbuilt)} could not be built")
    for fault in survivors:
        print(f"  {fault.where}: {fault.file}: {fault.what}: {fault.reason or 'NO REASON'}")
    return 1 if unbuilt or any(not fault.reason for fault in survivors) else 0


if __name__ == "__main__":
    sys.exit(main())
