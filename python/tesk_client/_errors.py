# SPDX-License-Identifier: Apache-2.0
"""The exceptions: one class for each result of the C library; the text is the library's or the
server's."""
from __future__ import annotations

from ._enums import Rejection, Result


class TeskError(Exception):
    """A call failed. `text` is the reason: the server's text if the server refused, and
    `error_code` is then its number; otherwise the library's text, and 0."""

    result = Result.FAILED

    def __init__(self, text: str, error_code: int = 0) -> None:
        super().__init__(text)
        self.text = text
        self.error_code = error_code

    def __str__(self) -> str:
        return self.text

    def __reduce__(self) -> tuple[type[TeskError], tuple[str, int]]:
        return type(self), (self.text, self.error_code)


class RejectedError(TeskError):
    """The server refused and gave a text."""

    result = Result.REJECTED


class NoPortError(RejectedError):
    """The port doesn't exist."""


class NoModuleError(RejectedError):
    """The port has no module, or none that can be read."""


class MisuseError(TeskError):
    """The call isn't allowed in this thread, process, event loop or state; nothing was sent."""

    result = Result.MISUSE


class NoServerError(TeskError, ConnectionRefusedError):
    """No process owns the server's mailbox name."""

    result = Result.NO_SERVER


class NoAccessError(TeskError, PermissionError):
    """The server or the port map exists, but this user has no access to it."""

    result = Result.NO_ACCESS


class DeadlineError(TeskError, TimeoutError):
    """No answer before the deadline; what the server did is unknown."""

    result = Result.TIMEOUT


class LostError(TeskError, ConnectionResetError):
    """The server went away before it answered."""

    result = Result.LOST


class ClosedError(TeskError):
    """The session is closed, or was closed before the answer came."""

    result = Result.CANCELLED


class NoPortMapError(TeskError, FileNotFoundError):
    """The port map doesn't exist."""

    result = Result.NO_PORT_MAP


class BadPortMapError(TeskError, ValueError):
    """The file isn't a valid port map; the text names the line."""

    result = Result.BAD_PORT_MAP


_BY_RESULT: dict[int, type[TeskError]] = {kind.result: kind for kind in (
    RejectedError, MisuseError, NoServerError, NoAccessError, DeadlineError, LostError, ClosedError,
    NoPortMapError, BadPortMapError)}

_BY_REJECTION: dict[int, type[TeskError]] = {
    Rejection.NO_PORT: NoPortError, Rejection.NO_MODULE: NoModuleError,
    Rejection.BUSY: NoModuleError}


def error_of(result: int, text: str, error_code: int = 0,
             rejection: int = Rejection.NONE) -> TeskError:
    """The exception for a result of the C library; an unknown result of a newer library is a
    TeskError."""
    kind = _BY_RESULT.get(result, TeskError)
    return _BY_REJECTION.get(rejection, kind)(text, error_code)
