# SPDX-License-Identifier: Apache-2.0
"""The session for scripts: calls that wait."""
from __future__ import annotations

import functools
import time
from collections.abc import Iterable
from types import TracebackType
from typing import Any

from . import _library as c
from ._core import Core, Outcome, port_number
from ._feed import Feed, Key
from ._enums import HistoryKind, Kind
from ._records import Capability, Change, HistoryRecord, Pm


def watch_keys(status: Iterable[int], sfp: Iterable[int]) -> list[Key]:
    """The subscriptions of a watch. SFP info goes first, so that a program gets the module before
    its status."""
    keys = [(kind, port_number(port))
            for kind, ports in ((Kind.SFP_INFO, sfp), (Kind.PORT_STATUS, status)) for port in ports]
    if not keys:
        raise ValueError("a watch needs a port: status=[0, 1], sfp=[0]")
    return list(dict.fromkeys(keys))


def history_requests(kinds: tuple[HistoryKind, ...]) -> list[int]:
    """The requests for these kinds; for all kinds if none is given."""
    return [c.HISTORY_PORT_STATUS + HistoryKind(kind) for kind in kinds or tuple(HistoryKind)]


def merged(histories: Iterable[list[HistoryRecord]]) -> list[HistoryRecord]:
    """Several histories as one, oldest first."""
    return sorted((record for history in histories for record in history),
                  key=lambda record: record.time)


class Session:
    """One program's connection to tesk-server. It belongs to the thread that made it, and a thread
    has at most one. Use it as a context manager, or close it.

    Each request is answered, fails or raises DeadlineError within `deadline_s`. With `reconnect`, a
    session whose server goes away looks for the server after `retry_s`, doubled up to
    `longest_retry_s`, and renews its subscriptions; requests wait for the server until their
    deadline. Without `reconnect`, every call raises LostError then. At most `window` requests are
    in progress.

    Creating a session waits for the server, which must be running: NoServerError, NoAccessError, or
    RejectedError with the server's text. Not for use in signal handlers. A forked child can't use
    the session, but can create one of its own."""

    def __init__(self, *, deadline_s: float = 2.0, window: int = 16, reconnect: bool = True,
                 retry_s: float = 0.1, longest_retry_s: float = 2.0) -> None:
        self._core = Core(deadline_s, window, reconnect, retry_s, longest_retry_s)

    def __enter__(self) -> Session:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Ends the session and its watches. Harmless if the session is closed."""
        self._core.close()

    @property
    def connected(self) -> bool:
        """False while the server is away, as far as the last call has seen."""
        return self._core.is_connected

    def fileno(self) -> int:
        """A descriptor that is readable when a watch may have a change, for select and similar
        calls. Watch.next(0) returns a change that was received, or None."""
        self._core.check_caller()
        return self._core.fd

    def _ask(self, *requests: tuple[int, int]) -> list[Any]:
        """Sends all requests at once, and waits for all answers."""
        outcomes: dict[int, Outcome] = {}
        for place, (request, port) in enumerate(requests):
            self._core.request(request, port, functools.partial(outcomes.__setitem__, place))
        while len(outcomes) < len(requests):
            self._core.wait(None)
        for outcome in outcomes.values():
            if isinstance(outcome, BaseException):
                raise outcome
        return [outcomes[place] for place in range(len(requests))]

    def pm(self, port: int) -> Pm:
        """Reads the measured values of a port."""
        pm: Pm = self._ask((c.PM, port_number(port)))[0]
        return pm

    def capabilities(self) -> list[Capability]:
        """Reads the capabilities that the server declares."""
        capabilities: list[Capability] = self._ask((c.CAPABILITIES, 0))[0]
        return capabilities

    def history(self, *kinds: HistoryKind) -> list[HistoryRecord]:
        """Reads the server's history of these kinds, all by default, oldest first. The server keeps
        30 records of each kind."""
        return merged(self._ask(*((request, 0) for request in history_requests(kinds))))

    def watch(self, *, status: Iterable[int] = (), sfp: Iterable[int] = ()) -> Watch:
        """Subscribes to the status and the SFP info of ports, waits until all are confirmed, and
        returns an iterator over the changes, which begins with the present state of each port. If
        one of the subscriptions fails, raises its error and keeps none of them."""
        watch = Watch(self, watch_keys(status, sfp))
        watch._open()
        return watch


class Watch:
    """An iterator over the changes of some ports. Iteration waits; it ends when the watch is
    closed, or none of its subscriptions is left. Leaving it unsubscribes.

    Changes that the program doesn't take are kept: 1000, and four for each port. Beyond that the
    older ones of each port are dropped, and Missed has their number."""

    def __init__(self, session: Session, keys: list[Key]) -> None:
        self._session = session  # lives as long as its watches
        self._core = session._core
        self._feed: Feed = self._core.open_feed(keys, lambda: None)

    def _open(self) -> None:
        try:
            while not self._feed.is_ready:
                self._core.wait(None)
            self._feed.check()
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> Watch:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 traceback: TracebackType | None) -> None:
        self.close()

    def __iter__(self) -> Watch:
        return self

    def __next__(self) -> Change:
        change = self.next()
        if change is None:
            raise StopIteration
        return change

    def next(self, timeout_s: float | None = None) -> Change | None:
        """The next change. None if none is received within `timeout_s`, or if none can follow."""
        end = None if timeout_s is None else time.monotonic() + timeout_s
        left = timeout_s
        while True:
            change = self._feed.take()
            if change is not None or self._feed.is_over or (left is not None and left < 0):
                return change
            self._core.wait(left)
            if end is not None:
                # A time below 0 takes a change that arrived at the timeout, and returns.
                left = end - time.monotonic()

    def close(self) -> None:
        """Unsubscribes, without waiting for the answer. Harmless if the watch or its session is
        closed."""
        self._core.drop_feed(self._feed)

    def __del__(self) -> None:
        if hasattr(self, "_feed"):
            self.close()
