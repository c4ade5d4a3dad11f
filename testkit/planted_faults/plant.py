#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""plant - plants faults in copies of the tree and runs the server's module tests on each; ./mutate
says how. A fault is three or four parts of the file of faults:

    == FILE: the effect
    survives: the reason why no test can notice it (only where that is so)
    - a line of the old text, which occurs exactly once in the file
    + a line of the new text

FILE is below src/tesk_server. "-" and "+" precede each line without a blank."""
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
TESTS = ("hardware", "procedures", "subscriptions", "filter", "history", "memory", "life")
TIME_LIMIT = 60
# The test that is most likely to notice a fault in a file, by the beginning of its name; it is built
# and run first.
LIKELY = {"leaky_bucket": "filter", "tesk_dolm_ric_pm": "procedures", "tesk_dolm": "hardware",
          "tesk_main": "life", "tesk_event_queue": "life", "tesk_mutex": "life",
          "tesk_client_data": "subscriptions", "tesk_mbx": "subscriptions", "tesk_portsub": "filter",
          "tesk_subscribe_port": "filter", "tesk_history": "history", "tesk_shell": "history",
          "tesk_cache": "history", "tesk_": "procedures"}


class Fault:
    def __init__(self, heading, where):
        self.file, self.what = (part.strip() for part in heading.split(":", 1))
        self.where, self.reason, self.old, self.new = where, "", [], []

    def planted(self, text):
        """The text with the fault, or None when the old text doesn't occur exactly once."""
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
        source = ROOT / "src/tesk_server" / fault.file
        if not source.exists():
            sys.exit(f"{fault.where}: there is no src/tesk_server/{fault.file}")
        if fault.planted(source.read_text()) is None:
            sys.exit(f"{fault.where}: the old text must occur exactly once in {fault.file}")
    return faults


class Copy:
    """A copy of the tree with a build directory of its own."""

    def __init__(self, number):
        self.tree = WORK / f"tree{number}"
        self.build = WORK / f"build{number}"
        self.environment = dict(os.environ, CMAKE_CXX_COMPILER_LAUNCHER="ccache",
                                CMAKE_C_COMPILER_LAUNCHER="ccache")

    def prepare(self):
        listed = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                                cwd=ROOT, capture_output=True, text=True, check=True).stdout
        for name in filter(None, listed.split("\0")):
            source, copied = ROOT / name, self.tree / name
            if not source.is_file():
                continue
            # A changed file gets the time of now, so that it is built again, and no other file does.
            if not copied.exists() or copied.read_bytes() != source.read_bytes():
                copied.parent.mkdir(parents=True, exist_ok=True)
                shutil.copyfile(source, copied)
                shutil.copymode(source, copied)
        self.run(["cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, "-DCMAKE_BUILD_TYPE=None",
                  "-DCMAKE_CXX_FLAGS=-O0"])
        self.run(["cmake", "--build", self.build, "--target", *self.targets()])
        for test in TESTS:
            if not self.passes(test):
                sys.exit(f"mutate: {test}_test fails without any fault")

    @staticmethod
    def targets():
        return [f"{test}_test" for test in TESTS] + ["tesk-server"]

    def run(self, command):
        done = subprocess.run(command, capture_output=True, text=True, env=self.environment)
        if done.returncode != 0:
            sys.exit(f"mutate: {' '.join(map(str, command))}\n{done.stdout}{done.stderr}")

    def passes(self, test):
        try:
            return subprocess.run([self.build / f"bin/{test}_test"], capture_output=True,
                                  timeout=TIME_LIMIT, stdin=subprocess.DEVNULL).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def verdict(self, fault):
        source = self.tree / "src/tesk_server" / fault.file
        text = source.read_text()
        source.write_text(fault.planted(text))
        try:
            first = next(test for name, test in LIKELY.items() if fault.file.startswith(name))
            for test in sorted(TESTS, key=lambda test: test != first):
                built = subprocess.run(["cmake", "--build", self.build, "--target", f"{test}_test"],
                                       capture_output=True, text=True, env=self.environment)
                if built.returncode != 0:
                    return "not built: " + " ".join(line for line in built.stdout.splitlines()
                                                    if "error" in line)[:200]
                if not self.passes(test):
                    return f"noticed by {test}_test"
            return "survived"
        finally:
            source.write_text(text)


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--only", default="")
    parser.add_argument("file", type=pathlib.Path, nargs="?",
                        default=ROOT / "testkit/planted_faults/faults.txt")
    arguments = parser.parse_args()
    faults = [fault for fault in read_faults(arguments.file)
              if arguments.only in fault.file + ": " + fault.what]
    print(f"mutate: {len(faults)} faults; preparing {arguments.jobs} copies", flush=True)
    free = queue.Queue()
    for number in range(arguments.jobs):
        copy = Copy(number)
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


sys.exit(main())
