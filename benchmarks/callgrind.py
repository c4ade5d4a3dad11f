# SPDX-License-Identifier: Apache-2.0
"""callgrind - counts the instructions of our own objects with callgrind."""
import json
import os
import pathlib
import re
import subprocess
import tempfile

from launcher import BIN, Failed

# The sources whose instructions are counted, for each program.
OWN_SOURCES = {"bench_instructions": "/src/tesk_server/", "bench_untraced": "/src/tesk_server/",
               "bench_mbx_instructions": "/src/platform/mbx/"}
COST_LINE = re.compile(r"^(?:[+\-*]?\d*) (\d+)$")
NAMED = re.compile(r"^(fl|fi|fe|fn|ob|cfi|cfl|cfn|cob)=\((\d+)\)(?: (.*))?$")


def own_instructions(profile, sources):
    """The name of the counted part, and the instructions of the functions of our sources in it,
    including inlined ones, without their callees."""
    files, own, spent, trigger, skip = {}, False, 0, "", False
    for line in profile.read_text().splitlines():
        if line.startswith("desc: Trigger: Client Request: "):
            trigger = line.partition("Request: ")[2]
        elif line.startswith("calls="):
            skip = True  # the next line is the cost of the callee
        elif match := NAMED.match(line):
            position, number, name = match.groups()
            if position in ("fl", "fi", "fe", "cfi", "cfl") and name is not None:
                files[number] = name
            if position == "fl":
                own = sources in files[number]
        elif match := COST_LINE.match(line):
            if own and not skip:
                spent += int(match.group(1))
            skip = False
    return trigger, spent


def run_cases(program, *args):
    done = subprocess.run([BIN / program, *args], capture_output=True, text=True, timeout=120)
    if done.returncode != 0:
        raise Failed(f"{program} fails: {done.stderr}")
    return json.loads(done.stdout)


def count_instructions(program):
    """Instructions of each procedure, as a dictionary."""
    with tempfile.TemporaryDirectory(prefix="tesk-bench-") as folder:
        # Else the instructions of the linker's jump table would be counted as the caller's, including
        # those before the count.
        command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/out.%p",
                   "--skip-plt=no", "--quiet", BIN / program]
        done = subprocess.run(command, capture_output=True, text=True, timeout=300,
                              env={**os.environ, "MBX_DIR": f"{folder}/mbx"})
        if done.returncode != 0:
            raise Failed(f"callgrind can't run {program}: {done.stderr}")
        cases = json.loads(done.stdout)
        counted = dict(own_instructions(path, OWN_SOURCES[program])
                       for path in pathlib.Path(folder).glob("out.*"))
    return {name: counted[name] / case["times"] for name, case in cases.items()}


def trace_test():
    """How many instructions the test of a trace has in the executable, on average: a test of the
    mask in memory and a jump, or a load, a test and a jump; and its share in the loads of the
    block's address, which the traces of a function have in common. Also returns the number of
    traces that load."""
    listing = subprocess.run(["objdump", "-d", "--no-show-raw-insn", BIN / "tesk-server"],
                             capture_output=True, text=True, check=True).stdout
    tests = len(re.findall(r"\ttest[bwl] +\$\w+,%fs:0x[c-f]\(", listing))
    loads = len(re.findall(r"\tmov +%fs:0x[c-f]\(", listing))
    places = len(re.findall(r"\tmov .*<procInfo", listing))
    traces = tests + loads
    return (2 * tests + 3 * loads + places) / traces, (traces + places) / traces
