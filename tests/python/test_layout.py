# SPDX-License-Identifier: Apache-2.0
"""The structures, enumerations and constants of the package, against the C header: a C program prints the
compiler's values."""
import pathlib
import re
import subprocess

import tesk_client
from tesk_client import _details, _enums, _library

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADER = ROOT / "src/tesk_client/tesk_client.h"

# Enumerations of the package whose C constants begin with another name, with that beginning.
PREFIXES = {"sfp_type": "SFP_", "port_state": "PORT_", "history_kind": "HISTORY_",
            "measurement": "", "kind": "", "result": ""}
NAMES = {re.sub(r"\B([A-Z])", r"_\1", name).lower(): value for name, value in vars(_enums).items()
         if isinstance(value, type) and issubclass(value, _enums.enum.IntEnum) and len(value)}
ENUMERATIONS = [(value, name, PREFIXES.get(name, f"{name.upper()}_"))
                for name, value in NAMES.items()]


def structures_of(module):
    return [value for value in vars(module).values()
            if isinstance(value, type) and issubclass(value, _library.ctypes.Structure)]


STRUCTURES = structures_of(_library)


def expressions():
    """Pairs of C expressions and numbers of the package that must be equal."""
    for structure in STRUCTURES + structures_of(_details):
        name = structure.__doc__
        yield f"sizeof({name})", _library.ctypes.sizeof(structure)
        for field, *_ in structure._fields_:
            place = getattr(structure, field)
            yield f"offsetof({name}, {field})", place.offset
            yield f"sizeof((({name} *)0)->{field})", place.size
    for enumeration, name, prefix in ENUMERATIONS:
        yield from ((f"TESK_CLIENT_{prefix}{each.name}", each.value) for each in enumeration)
        if enumeration in _enums._TEXTS:
            yield f"TESK_CLIENT_TEXT_{name.upper()}", _enums._TEXTS[enumeration]
    yield "TESK_CLIENT_MEASUREMENTS", len(_enums.Measurement)
    for name, value in vars(_library).items():
        if name.isupper() and isinstance(value, int):
            yield f"TESK_CLIENT_{'' if name.startswith(('EVENT_', 'MEASUREMENTS')) else 'REQUEST_'}{name}", value


def test_every_size_offset_and_value_is_that_of_the_c_header(tmp_path):
    wanted = dict(expressions())
    source = tmp_path / "layout.c"
    source.write_text('#include <stdio.h>\n#include "tesk_client/tesk_details.h"\n'
                      '#include "tesk_client/tesk_client.h"\nint main(void) {\n'
                      + "".join(f'printf("%zu\\n", (size_t)({each}));\n' for each in wanted)
                      + "}\n")
    subprocess.run(["cc", "-I", ROOT / "src", "-I", ROOT / "src/platform/dolm_ric", source, "-o", tmp_path / "layout"], check=True)
    printed = subprocess.run([tmp_path / "layout"], capture_output=True, check=True).stdout
    assert dict(zip(wanted, map(int, printed.split()))) == wanted


def test_nothing_of_the_c_header_is_missing_and_the_version_is_its():
    header = re.sub(r"/\*.*?\*/", "", HEADER.read_text(), flags=re.S)
    assert len(ENUMERATIONS) == 12 and len(STRUCTURES) == 8
    for enumeration, name, prefix in ENUMERATIONS:
        body = re.search(rf"enum tesk_client_{name}[^{{;]*{{(.*?)}}", header, re.S)[1]
        names = set(re.findall(rf"TESK_CLIENT_{prefix}(\w+)", body)) - {"MEASUREMENTS"}
        assert names == {member.name for member in enumeration}, name
    for structure in STRUCTURES:
        body = re.search(rf"struct {structure.__doc__} {{(.*?)\n}}", header, re.S)[1]
        names = [a or b for a, b in re.findall(r"\(\*(\w+)\)|(\w+)(?:\[\w+\])?;", body)]
        assert names == [field for field, *_ in structure._fields_], structure
    version = re.search(r"\bVERSION ([\d.]+) LANG", (ROOT / "CMakeLists.txt").read_text())[1]
    assert tesk_client.__version__ == version
