# SPDX-License-Identifier: Apache-2.0
"""The engine under both kinds of session: one C session, its open requests and its subscriptions.

No code of the program runs inside a C callback: answers and changes are put into objects from which
the program takes them. The callbacks are three functions of this module, not of a session, so that
a session holds no reference to itself; they find the session in `_thread`, since they run only
inside a dispatch or a close, in the session's thread.

A port's subscription is shared by all watches of the port: the server accepts one of a kind from
each client. Answers alone change its state:

    NONE -> ASKING -> HELD -> LEAVING -> NONE

After a late answer the state is UNKNOWN. The port is then unsubscribed until the server has
answered, and subscribed again: so no watch waits for a subscription that doesn't exist."""
from __future__ import annotations

import ctypes
import enum
import os
import select
import sys
import threading
import warnings
from collections.abc import Callable
from typing import Any, Union

from . import _library as c
from ._enums import HistoryKind, Kind, Result
from ._errors import ClosedError, LostError, MisuseError, RejectedError, TeskError, error_of
from ._feed import Feed, Key
from ._records import (Capability, Change, HistoryRecord, Pm, PortStatus, ServerLost,
                       ServerRestored, SfpInfo, SubscriptionLost, history_record)

# The outcome of a request; None for a request that is only confirmed.
Outcome = Union[None, Pm, list[Capability], list[HistoryRecord], BaseException]

# The receiver of an outcome: a caller's function, or the key of a subscription with True for a
# subscribe and False for an unsubscribe: a function would keep the session alive.
Taker = Union[Callable[[Outcome], None], tuple[Key, bool]]

_library = c.library
_thread = threading.local()


def port_number(port: int) -> int:
    """Returns the checked port number; ctypes would truncate a wrong one silently."""
    if isinstance(port, bool) or not isinstance(port, int):
        raise TypeError(f"a port is an int, not {port!r}")
    if not 0 <= port <= 0xFFFFFFFF:
        raise ValueError(f"{port} is no port number")
    return port


def milliseconds(name: str, seconds: float) -> int:
    """An option in the C library's unit, for which 0 would be its default."""
    if not 0.001 <= seconds <= 4_000_000:
        raise ValueError(f"{name} must be from 0.001 to 4,000,000 seconds, not {seconds!r}")
    return round(seconds * 1000)


class _State(enum.Enum):
    NONE = enum.auto()
    ASKING = enum.auto()
    HELD = enum.auto()
    LEAVING = enum.auto()
    UNKNOWN = enum.auto()


class _Subscription:
    """One port's subscription of one kind."""

    __slots__ = ("state", "feeds", "last")

    def __init__(self, state: _State) -> None:
        self.state = state
        self.feeds: list[Feed] = []
        self.last: Change | None = None  # for watches that are created later


class Core:
    """A C session. Every call must come from the thread that made the session, except calls of a
    watch that is being destroyed: the garbage collector runs in any thread."""

    def __init__(self, deadline_s: float, window: int, reconnect: bool, retry_s: float,
                 longest_retry_s: float) -> None:
        self._session: int | None = None
        if not 1 <= window <= 0xFFFFFFFF:
            raise ValueError(f"window must be at least 1, not {window!r}")
        options = c.COptions(milliseconds("deadline_s", deadline_s), window, reconnect,
                             milliseconds("retry_s", retry_s),
                             milliseconds("longest_retry_s", longest_retry_s),
                             _on_sfp_info, _on_port_status, _on_event, None)
        self._owner = (os.getpid(), threading.get_ident())
        self._is_main_thread = threading.current_thread() is threading.main_thread()
        self._requests: dict[int, Taker] = {}
        self._last_request = 0
        self._subscriptions: dict[Key, _Subscription] = {}
        self._feeds: list[Feed] = []
        self._failure: BaseException | None = None
        self._close_wanted = False

        session = ctypes.c_void_p()
        result = _library.tesk_client_connect(options, session)
        if result != Result.OK:
            raise error_of(result, c.last_error())
        self._session = session.value
        self.fd: int = _library.tesk_client_fd(self._session)
        self._poll = select.poll()
        self._poll.register(self.fd, select.POLLIN)

    def __del__(self, is_finalizing: Callable[[], bool] = sys.is_finalizing) -> None:
        # If the process is ending, the kernel closes the connection.
        if self._session is None or is_finalizing():
            return
        try:  # a program may turn warnings into errors
            warnings.warn("a tesk_client session was not closed", ResourceWarning, source=self)
        finally:
            if self.belongs_to_caller:
                self.close()

    @property
    def belongs_to_caller(self) -> bool:
        """True if this thread and process made the session."""
        return self._owner == (os.getpid(), threading.get_ident())

    def check_caller(self) -> int:
        """Returns the C session; raises if it is closed or the caller may not use it."""
        if self._session is None:
            raise ClosedError("the session is closed")
        if not self.belongs_to_caller:
            raise MisuseError("the session belongs to another thread" if
                              self._owner[0] == os.getpid() else
                              "the session belongs to the process that this one was forked from")
        return self._session

    @property
    def is_closed(self) -> bool:
        """True if the session is closed."""
        return self._session is None

    @property
    def is_connected(self) -> bool:
        """False while the server is away."""
        return bool(_library.tesk_client_connected(self.check_caller()))

    def request(self, request: int, port: int, taker: Taker) -> None:
        """Sends a request. `taker` gets the outcome exactly once, later: at the request's deadline,
        or when the session is closed, at the latest."""
        session = self.check_caller()
        self._last_request = number = self._last_request + 1
        self._requests[number] = taker
        result = _library.tesk_client_request(session, request, port, _on_answer, number)
        if result != Result.OK:
            del self._requests[number]
            raise error_of(result, c.last_error())

    def wait(self, timeout_s: float | None) -> None:
        """Waits until the descriptor is readable, and dispatches. Python's signal handlers run
        during the wait; if one raises an exception, the wait ends."""
        self.check_caller()
        if self._poll.poll(None if timeout_s is None else max(0, timeout_s * 1000)):
            self.dispatch()

    def dispatch(self) -> None:
        """Handles what has been received, and raises the exception of a callback, if there was
        one."""
        result = self._call_inside(_library.tesk_client_dispatch, self.check_caller())
        if result == Result.MISUSE:
            raise MisuseError(c.last_error())
        if result == Result.LOST:  # for good: all later requests are refused
            for feed in self._feeds[:]:
                self._fail_feed(feed, LostError("the server went away"))
        if self._failure is not None:
            self._raise_failure()
        if self._close_wanted:
            self.close()

    def close(self) -> None:
        """Ends the session; harmless if it is closed. In a forked child the session is only
        forgotten, since it belongs to the parent; the mailbox library does the same."""
        if self._session is None:
            return
        if self._owner[0] != os.getpid():
            self._session = None
            return
        session = self.check_caller()
        if self._call_inside(_library.tesk_client_dispatch, session) == Result.MISUSE:
            self._close_wanted = True  # called by a signal handler, inside a callback
            return
        self._session = None
        self._call_inside(_library.tesk_client_close, session)
        for feed in self._feeds:
            feed.fail(ClosedError("the session is closed"))
        self._feeds.clear()
        self._subscriptions.clear()
        if self._failure is not None:
            self._raise_failure()

    def _call_inside(self, function: Callable[[int], Any], session: int) -> Any:
        """Calls a C function that runs callbacks.

        Python runs signal handlers at the start of a function, and so may raise KeyboardInterrupt
        in a callback before its first line, or in a __del__ that the garbage collector calls then.
        Python passes that exception to sys.unraisablehook; a hook set here keeps it. Only the main
        thread runs signal handlers, so no other thread changes the hook."""
        # "core" is set while a callback of another session runs, in which the garbage collector
        # destroys this session.
        outer = getattr(_thread, "core", None)
        _thread.core = self
        previous = sys.unraisablehook

        def fetch(event: Any) -> None:
            error = event.exc_value
            is_ours = any(event.object is each for each in (None, *_CALLBACKS))
            if self.belongs_to_caller and error is not None and (
                    is_ours or not isinstance(error, Exception)):
                self.note_failure(error)
            else:
                previous(event)

        try:
            if self._is_main_thread:
                sys.unraisablehook = fetch
            return function(session)
        finally:
            _thread.core = outer
            if sys.unraisablehook is fetch:
                sys.unraisablehook = previous

    def note_failure(self, error: BaseException) -> None:
        """Keeps the exception of a callback until the C function returns."""
        if self._failure is None:
            self._failure = error

    def _raise_failure(self) -> None:
        """An unknown answer or change was lost: all open requests fail, and all watches miss a
        change."""
        failure, self._failure = self._failure, None
        for feed in self._feeds:
            feed.miss()
        for number in list(self._requests):
            self.answered(number, TeskError("an exception interrupted the session"))
        if failure is not None:
            raise failure

    def answered(self, number: int, outcome: Outcome) -> None:
        """Gives the outcome of a request to its taker."""
        taker = self._requests.pop(number, None)
        if isinstance(taker, tuple):
            key, subscribes = taker
            (self._subscribed if subscribes else self._unsubscribed)(key, outcome)
        elif taker is not None:
            taker(outcome)

    # Subscriptions

    def open_feed(self, keys: list[Key], wake: Callable[[], None]) -> Feed:
        """Subscribes to all of the keys. The feed is ready once all subscriptions are confirmed."""
        self.check_caller()
        feed = Feed(keys, wake)
        try:
            self._subscribe(feed, keys)
        except BaseException:
            self.drop_feed(feed)
            raise
        return feed

    def _subscribe(self, feed: Feed, keys: list[Key]) -> None:
        self._feeds.append(feed)
        for key in keys:
            held = self._subscriptions.setdefault(key, _Subscription(_State.NONE))
            held.feeds.append(feed)
            if held.state is _State.HELD:
                feed.confirm(key)
                if held.last is not None:
                    feed.put(held.last)
            self._settle(key)
            if feed.has_failed:
                self._release(feed)
                break

    def drop_feed(self, feed: Feed) -> None:
        """Ends a feed, and the subscriptions that no other feed uses, without waiting. In a thread
        that isn't the session's it only marks the feed, which is removed at the next change."""
        feed.closed = True
        if self._session is not None and self.belongs_to_caller:
            self._release(feed)

    def _release(self, feed: Feed) -> None:
        if feed in self._feeds:
            self._feeds.remove(feed)
        for key in feed.keys:
            held = self._subscriptions.get(key)
            if held is not None and feed in held.feeds:
                held.feeds.remove(feed)
                self._settle(key)

    def _fail_feed(self, feed: Feed, error: TeskError) -> None:
        feed.fail(error)
        self._release(feed)

    def _settle(self, key: Key) -> None:
        """Makes the next request for a subscription, if one is due."""
        held = self._subscriptions[key]
        kind, port = key
        subscribe = c.SUBSCRIBE_SFP_INFO + 2 * kind
        try:
            if held.state is _State.NONE and held.feeds:
                held.state = _State.ASKING
                self.request(subscribe, port, (key, True))
            elif held.state is _State.UNKNOWN or (held.state is _State.HELD and not held.feeds):
                held.state, held.last = _State.LEAVING, None
                self.request(subscribe + 1, port, (key, False))
            elif held.state is _State.NONE:
                del self._subscriptions[key]
        except TeskError as error:  # the session has ended, or has no connection for the request
            del self._subscriptions[key]
            for feed in held.feeds[:]:
                self._fail_feed(feed, error)
        except BaseException:  # of a signal handler: whether the request was sent isn't known
            held.state = _State.UNKNOWN
            raise

    def _subscribed(self, key: Key, outcome: Outcome) -> None:
        held = self._subscriptions.get(key)
        if held is None or held.state is not _State.ASKING:
            return
        if not isinstance(outcome, TeskError):
            held.state = _State.HELD
            for feed in held.feeds[:]:
                feed.confirm(key)
        else:
            held.state = _State.NONE if isinstance(outcome, RejectedError) else _State.UNKNOWN
            self._fail_feeds_of(held, outcome)
        self._settle(key)

    def _unsubscribed(self, key: Key, outcome: Outcome) -> None:
        held = self._subscriptions.get(key)
        if held is None or held.state is not _State.LEAVING:
            return
        held.state = _State.NONE
        if isinstance(outcome, TeskError) and not isinstance(outcome, RejectedError):
            held.state = _State.UNKNOWN
            self._fail_feeds_of(held, outcome)
        self._settle(key)

    def _fail_feeds_of(self, held: _Subscription, error: TeskError) -> None:
        feeds, held.feeds = held.feeds, []
        for feed in feeds:
            self._fail_feed(feed, error)

    def receive(self, key: Key, change: Change) -> None:
        """Handles an indication of a subscription."""
        held = self._subscriptions.get(key)
        if held is None:  # for a subscription that couldn't be ended
            self._subscriptions[key] = _Subscription(_State.UNKNOWN)
            self._settle(key)
            return
        held.last = change
        for feed in held.feeds[:]:
            if feed.closed:
                self._release(feed)
            else:
                feed.put(change)

    def receive_event(self, event: c.CEvent) -> None:
        """Handles an event of the session, such as the loss of the server."""
        if event.type == c.EVENT_SUBSCRIPTION_LOST:
            key = (Kind(event.kind), event.port_no)
            held = self._subscriptions.get(key)
            if held is not None and held.state is _State.HELD:
                self._lose_subscription(key, held, error_of(event.result, c.printable(event.text)))
            return
        is_lost = event.type == c.EVENT_LOST
        for held in self._subscriptions.values():
            if is_lost:
                held.last = None
        for feed in self._feeds[:]:
            feed.put(ServerLost() if is_lost else ServerRestored())

    def _lose_subscription(self, key: Key, held: _Subscription, error: TeskError) -> None:
        feeds, held.feeds = held.feeds, []
        held.state = _State.NONE if isinstance(error, RejectedError) else _State.UNKNOWN
        for feed in feeds:
            feed.keys.discard(key)
            feed.put(SubscriptionLost(key[0], key[1], error))
        self._settle(key)


# The callbacks of the C library. A record is valid during the callback only, so it is converted
# here. `_thread.core` is set, since the library calls back only inside a call on the session.

def _convert(answer: c.CAnswer) -> Outcome:
    if answer.result != Result.OK:
        return error_of(answer.result, c.printable(answer.text), answer.error_code,
                        answer.rejection)
    if answer.request == c.PM:
        return Pm._from_c(answer.pm.contents)
    if answer.request == c.CAPABILITIES:
        return [Capability(entry.id, entry.value) for entry in
                answer.capabilities[:answer.count]]
    if answer.request >= c.HISTORY_PORT_STATUS:
        kind = HistoryKind(answer.request - c.HISTORY_PORT_STATUS)
        return [history_record(kind, record) for record in answer.history[:answer.count]]
    return None


def _answer(pointer: Any, user: int) -> None:
    core: Core = _thread.core
    try:
        core.answered(user, _convert(pointer.contents))
    except BaseException as error:
        core.note_failure(error)


def _sfp_info(pointer: Any, _: None) -> None:
    core: Core = _thread.core
    try:
        info = SfpInfo._from_c(pointer.contents)
        core.receive((Kind.SFP_INFO, info.port), info)
    except BaseException as error:
        core.note_failure(error)


def _port_status(pointer: Any, _: None) -> None:
    core: Core = _thread.core
    try:
        status = PortStatus._from_c(pointer.contents)
        core.receive((Kind.PORT_STATUS, status.port), status)
    except BaseException as error:
        core.note_failure(error)


def _event(pointer: Any, _: None) -> None:
    core: Core = _thread.core
    try:
        core.receive_event(pointer.contents)
    except BaseException as error:
        core.note_failure(error)


_CALLBACKS = (_answer, _sfp_info, _port_status, _event)
_on_answer = c.AnsweredCallback(_answer)
_on_sfp_info = c.SfpInfoCallback(_sfp_info)
_on_port_status = c.PortStatusCallback(_port_status)
_on_event = c.EventCallback(_event)
