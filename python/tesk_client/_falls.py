# SPDX-License-Identifier: Apache-2.0
"""The falls of links that the board records, and why the links fell: by the rules of the C library,
which teskctl and tesk-exporter use, too."""
from __future__ import annotations

import json
import os
import stat
import warnings
from typing import Any

from . import _library as c
from ._enums import Result
from ._errors import MisuseError, NoAccessError, NoServerError, TeskError, error_of

LARGEST_FILE = 64 << 10


def judge_fall(facts: dict[str, Any]) -> dict[str, Any]:
    """Why a link fell: a dictionary with the keys of `teskctl why --json`, from facts with the keys
    that the page on causes lists. Needs no session and no file; any thread. Raises MisuseError with
    the key of an invalid fact."""
    made: list[bytes] = []
    failures: list[BaseException] = []

    def take(verdict: bytes, _: None) -> None:
        try:
            made.append(verdict)
        except BaseException as error:
            failures.append(error)

    try:
        text = json.dumps(facts, allow_nan=False).encode()
    except (TypeError, ValueError, RecursionError) as error:
        raise MisuseError(f"facts are texts, numbers, lists and truth values: {error}") from error
    result = c.library.tesk_client_judge_fall(text, c.FallJudgedCallback(take), None)
    if failures:
        raise failures[0]
    if result != Result.OK:
        raise error_of(result, c.last_error())
    verdict: dict[str, Any] = json.loads(made[0])
    return verdict


def falls(port: int, path: str | os.PathLike[str] | None = None) -> list[dict[str, Any]]:
    """The last falls of a port's link, the newest first, each as judge_fall() returns it; empty if
    the port has none. The board writes a fall 2 s after it, and again when the link is up again.
    Sends the server no request; any thread.

    Without a path the folder is "falls" beside the file that DOLM_RIC_DETAILS names, else beside
    the port map; if neither variable is set and MBX_DIR selects another server than the system's,
    there is no folder. An invalid fall is left out with a warning. Raises NoServerError if no board
    records falls, NoAccessError, or TeskError."""
    if not isinstance(port, int) or not 0 <= port <= 0xFFFF:
        raise MisuseError(f"a port is a number from 0 to 65535, not {port!r}")
    folder = _folder() if path is None else os.fsdecode(path)
    found: list[dict[str, Any]] = []
    for number, line in enumerate(_read(folder, port).splitlines(), 1):
        try:
            found.append(judge_fall(json.loads(line)))
        except (ValueError, RecursionError, MisuseError) as error:
            warnings.warn(f"{folder}/{port}: line {number} is left out: {error}", stacklevel=2)
    return found[::-1]


def _folder() -> str:
    for name in "DOLM_RIC_DETAILS", "DOLM_RIC_PORT_MAP":
        if named := os.environ.get(name):
            return os.path.join(os.path.dirname(named), "falls")
    if os.environ.get("MBX_DIR") in (None, "", "/run/mbx"):
        return "/run/dolm_ric/falls"
    raise NoServerError("MBX_DIR selects a server of its own: DOLM_RIC_DETAILS or DOLM_RIC_PORT_MAP "
                        "say where its board records falls")


def _read(folder: str, port: int) -> bytes:
    """Doesn't block on a FIFO, and follows no link."""
    name = os.path.join(folder, str(port))
    try:
        os.stat(folder)
        with open(os.open(name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_CLOEXEC), "rb") as file:
            if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
                raise TeskError(f"{name} isn't a file, which the board would have made")
            return file.read(LARGEST_FILE)
    except FileNotFoundError as error:
        if error.filename == name:
            return b""
        raise NoServerError(f"no board records falls in {folder}") from error
    except PermissionError as error:
        raise NoAccessError(f"{error.filename}: {error.strerror}") from error
    except OSError as error:
        raise TeskError(f"{name}: {error.strerror}") from error
