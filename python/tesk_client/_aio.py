# SPDX-License-Identifier: Apache-2.0
"""The session for asyncio: the same calls, awaited. The event loop polls the session's descriptor
and dispatches when it is readable, so nothing runs between the loop's turns and no thread is
needed."""
from __future__ import annotations

import asyncio
from collections.abc import Iterable
from types import TracebackType
from typing import Any

from . import _library as c
from ._core import Core, Outcome, port_number
from ._enums import HistoryKind
from ._errors import MisuseError
from ._feed import Key
from ._records import Capability, Change, HistoryRecord, Pm
from ._session import history_requests, merged, watch_keys


class AsyncSession:
    """A Session for asyncio, with the same options and promises. It must be created while an event
    loop runs, and belongs to that loop.

    Creating a session blocks the loop's thread until the server answers, since the connection
    belongs to that thread: well under a millisecond if the server runs, at most the deadline after
    the time in which the mailbox library looks for the server (MBX_LOCATE_MS). Reconnecting to a
    server that doesn't respond blocks as well. Nothing else blocks the loop.

    Cancelling a task that waits for an answer is safe: the answer is dropped when it is
    received."""

    def __init__(self, *, deadline_s: float = 2.0, window: int = 16, reconnect: bool = True,
                 retry_s: float = 0.1, longest_retry_s: float = 2.0) -> None:
        self._loop = asyncio.get_running_loop()
        self._core = Core(deadline_s, window, reconnect, retry_s, longest_retry_s)
        # The core has no reference to the session, so the session can be collected while the loop
        # has the core.
        self._loop.add_reader(self._core.fd, self._core.dispatch)

    async def __aenter__(self) -> AsyncSession:
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        traceback: TracebackType | None) -> None:
        self.close()

    def close(self) -> None:
        """Ends the session, without waiting: calls that wait for an answer or a change raise
        ClosedError. Harmless if the session is closed, or its loop has ended."""
        if self._core.is_closed:
            return
        if self._core.belongs_to_caller:
            self._forget_descriptor()
        self._core.close()

    def __del__(self) -> None:
        core = getattr(self, "_core", None)
        # The loop must not poll the descriptor once the core has closed it.
        if core is not None and not core.is_closed and core.belongs_to_caller:
            self._forget_descriptor()

    def _forget_descriptor(self) -> None:
        if not self._loop.is_closed():
            self._loop.remove_reader(self._core.fd)

    @property
    def connected(self) -> bool:
        """False while the server is away."""
        return self._core.is_connected

    def _check_loop(self) -> None:
        self._core.check_caller()
        if asyncio.get_running_loop() is not self._loop:
            raise MisuseError("the session belongs to another event loop")

    async def _ask(self, request: int, port: int = 0) -> Any:
        self._check_loop()
        answer: asyncio.Future[Outcome] = self._loop.create_future()

        def done(outcome: Outcome) -> None:
            # An exception is stored as a result, so that a cancelled task leaves no unretrieved
            # exception.
            if not answer.done():  # cancelled
                answer.set_result(outcome)

        self._core.request(request, port, done)
        outcome = await answer
        if isinstance(outcome, BaseException):
            raise outcome
        return outcome

    async def pm(self, port: int) -> Pm:
        """Reads the measured values of a port."""
        pm: Pm = await self._ask(c.PM, port_number(port))
        return pm

    async def capabilities(self) -> list[Capability]:
        """Reads the capabilities that the server declares."""
        capabilities: list[Capability] = await self._ask(c.CAPABILITIES)
        return capabilities

    async def history(self, *kinds: HistoryKind) -> list[HistoryRecord]:
        """Reads the server's history of these kinds, all by default, oldest first."""
        return merged(await asyncio.gather(*map(self._ask, history_requests(kinds))))

    def watch(self, *, status: Iterable[int] = (), sfp: Iterable[int] = ()) -> AsyncWatch:
        """Subscribes to the status and the SFP info of ports, and returns an asynchronous iterator
        over the changes, which begins with the present state of each port. If one of the
        subscriptions fails, the iteration raises its error, and none of them is kept."""
        self._check_loop()
        return AsyncWatch(self, watch_keys(status, sfp))


class AsyncWatch:
    """An asynchronous iterator over the changes of some ports, like Watch. Leave it by break, by
    close or as an asynchronous context manager, which waits until all subscriptions are confirmed.
    A task that is cancelled while it waits loses no change."""

    def __init__(self, session: AsyncSession, keys: list[Key]) -> None:
        self._session = session  # lives as long as its watches
        self._core = session._core
        self._news = asyncio.Event()
        self._feed = self._core.open_feed(keys, self._news.set)

    async def __aenter__(self) -> AsyncWatch:
        try:
            while not self._feed.is_ready:
                await self._wait()
            self._feed.check()
        except BaseException:
            self.close()
            raise
        return self

    async def __aexit__(self, kind: type[BaseException] | None, error: BaseException | None,
                        traceback: TracebackType | None) -> None:
        self.close()

    def __aiter__(self) -> AsyncWatch:
        return self

    async def _wait(self) -> None:
        self._news.clear()
        await self._news.wait()

    async def __anext__(self) -> Change:
        while True:
            change = self._feed.take()
            if change is not None:
                return change
            if self._feed.is_over:
                raise StopAsyncIteration
            await self._wait()

    def close(self) -> None:
        """Unsubscribes, without waiting for the answer. A task that iterates ends its iteration.
        Harmless if the watch or its session is closed."""
        self._core.drop_feed(self._feed)
        self._news.set()

    def __del__(self) -> None:
        if hasattr(self, "_feed"):
            self._core.drop_feed(self._feed)
