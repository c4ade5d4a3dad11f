# SPDX-License-Identifier: Apache-2.0
"""The queue between a session and one of its watches."""
from __future__ import annotations

from collections import deque
from collections.abc import Callable, Iterable

from ._enums import Kind
from ._errors import TeskError
from ._records import Change, Missed

Key = tuple[Kind, int]

# The most changes that a watch keeps if the program doesn't take them; four for each port are
# added.
BACKLOG = 1000


class Feed:
    """The queue that a watch reads: the changes of its ports, in their order, bounded in number."""

    def __init__(self, keys: Iterable[Key], wake: Callable[[], None]) -> None:
        self.keys = set(keys)
        self.open_keys = set(self.keys)  # the server hasn't confirmed these yet
        self.closed = False
        self._wake = wake
        self._error: TeskError | None = None
        self._missed = 0
        self._queue: deque[Change] = deque()
        self._limit = BACKLOG + 4 * len(self.keys)

    def put(self, change: Change) -> None:
        """Adds a change."""
        if len(self._queue) >= self._limit:
            self._compact()
        self._queue.append(change)
        self._wake()

    def _compact(self) -> None:
        """Keeps only the latest change of each port and kind, so that no port's last state is
        lost."""
        latest = {(type(change), getattr(change, "kind", None), getattr(change, "port", None)):
                  place for place, change in enumerate(self._queue)}
        kept = [self._queue[place] for place in sorted(latest.values())]
        self._missed += len(self._queue) - len(kept)
        self._queue = deque(kept)

    def miss(self) -> None:
        """Notes that a change was lost."""
        self._missed += 1
        self._wake()

    def confirm(self, key: Key) -> None:
        """Notes that the server has confirmed a subscription."""
        self.open_keys.discard(key)
        self._wake()

    def fail(self, error: TeskError) -> None:
        """Ends the feed. If the watch isn't ready yet, it fails at once; otherwise the queued
        changes come first."""
        if self.open_keys:
            self._queue.clear()
            self._missed = 0
        self._error = self._error or error
        self._wake()

    @property
    def has_failed(self) -> bool:
        """True if an error has ended the feed."""
        return self._error is not None

    @property
    def is_ready(self) -> bool:
        """All subscriptions are confirmed, or one of them failed."""
        return not self.open_keys or self.has_failed or self.closed

    @property
    def is_over(self) -> bool:
        """True if no change is queued and none can follow."""
        return not self._queue and not self._missed and (self.closed or not self.keys)

    def take(self) -> Change | None:
        """The next change, None while there is none."""
        if not self.is_ready:
            return None
        if self._missed:
            missed, self._missed = self._missed, 0
            return Missed(missed)
        if self._queue:
            return self._queue.popleft()
        if not self.closed:
            self.check()
        return None

    def check(self) -> None:
        """Raises the error that has ended the feed, if there is one."""
        if self._error is not None:
            raise self._error.with_traceback(None)
