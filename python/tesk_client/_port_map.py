# SPDX-License-Identifier: Apache-2.0
"""The names of the board's ports."""
from __future__ import annotations

import os

from . import _library as c
from ._enums import Result
from ._errors import error_of


def ports(path: str | os.PathLike[str] | None = None) -> dict[int, str]:
    """Reads the port map, in which the board library names its ports: a name for each port number,
    in ascending order. Needs no server and no session; any thread.

    Without a path the file is the one that DOLM_RIC_PORT_MAP names, else /run/dolm_ric/ports; the
    latter is the map of the system's server, and isn't read if MBX_DIR selects another server.
    Raises NoPortMapError, NoAccessError, or BadPortMapError with the line."""
    found: dict[int, str] = {}
    failures: list[BaseException] = []

    def each(port: int, name: bytes, _: None) -> None:
        try:
            found[port] = name.decode("ascii")
        except BaseException as error:
            failures.append(error)

    encoded = None if path is None else os.fsencode(path)
    result = c.library.tesk_client_read_port_map(encoded, c.PortNamedCallback(each), None)
    if failures:
        raise failures[0]
    if result != Result.OK:
        raise error_of(result, c.last_error())
    return found
