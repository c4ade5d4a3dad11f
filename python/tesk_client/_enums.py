# SPDX-License-Identifier: Apache-2.0
"""The enumerations of tesk-server, with the values of tesk_client.h."""
from __future__ import annotations

import enum

from ._library import library


class Word(enum.IntEnum):
    """A word of the server that is an enumeration. A newer server may send a value that isn't
    listed here: it becomes a member UNKNOWN_<value>, which equals its number."""

    @classmethod
    def _missing_(cls, value: object) -> Word | None:
        # Not stored, so that a server that sends many unknown values causes no growth of memory.
        if not isinstance(value, int) or not 0 <= value <= 0xFFFFFFFF:
            return None
        member = int.__new__(cls, value)
        member._name_ = f"UNKNOWN_{value}"
        member._value_ = value
        return member

    @property
    def text(self) -> str:
        """In words, as teskctl shows it: "low warning"."""
        text: bytes = library.tesk_client_text(_TEXTS[type(self)], self.value)
        return text.decode("ascii")


class SfpType(Word):
    """The kind of the module in a port."""

    NOT_PRESENT = 0
    ELECTRICAL = 1
    OPTICAL = 2
    UNKNOWN = 3


class Link(Word):
    """The link state of a port."""

    STOPPED = 0
    NOT_OPERATIONAL = 1
    OPERATIONAL = 2


class Level(Word):
    """The grade of a measured value against the thresholds of its module."""

    OK = 0
    LOW_WARNING = 1
    HIGH_WARNING = 2
    LOW_ALARM = 3
    HIGH_ALARM = 4
    NOT_MEASURED = 5
    NOT_SUPPORTED = 6


class Measurement(Word):
    """The measured value that a level grades."""

    TX_POWER = 0
    RX_POWER = 1
    TX_BIAS = 2
    VCC = 3
    TEMPERATURE = 4
    LASER_TEMPERATURE = 5
    TEC = 6


class Environment(Word):
    """The status word of a module."""

    CLEAR = 0
    SET = 1
    NOT_READ = 5


class PortState(Word):
    """The state of a port in the history."""

    UNKNOWN = 0
    UP = 1
    DOWN = 2


class Presence(Word):
    """The presence of a port's module in the history."""

    NONE = 0
    NOT_READY = 1
    READY = 2
    UNKNOWN = 3
    UNSUPPORTED_PORT = 4


class Action(Word):
    """An action of the server towards a client."""

    UNKNOWN = 0
    STATUS_SUBSCRIBE = 1
    STATUS_UNSUBSCRIBE = 2
    SFP_SUBSCRIBE = 3
    SFP_UNSUBSCRIBE = 4
    STATUS_INDICATION = 5
    SFP_INDICATION = 6


class Kind(enum.IntEnum):
    """The kinds of subscription to a port."""

    SFP_INFO = 0
    PORT_STATUS = 1


class HistoryKind(enum.IntEnum):
    """The server's histories."""

    PORT_STATUS = 0
    SFP_INFO = 1
    ACTIONS = 2


class Rejection(enum.IntEnum):
    """Why the server refused, as far as its text says."""

    NONE = 0
    OTHER = 1
    NO_PORT = 2
    NO_MODULE = 3
    SUBSCRIBED = 4
    NOT_SUBSCRIBED = 5
    BUSY = 6


class Result(enum.IntEnum):
    """The result of a call."""

    OK = 0
    REJECTED = 1
    MISUSE = 2
    NO_SERVER = 3
    NO_ACCESS = 4
    TIMEOUT = 5
    LOST = 6
    CANCELLED = 7
    FAILED = 8
    NO_PORT_MAP = 9
    BAD_PORT_MAP = 10


# tesk_client_enumeration, for the texts.
_TEXTS: dict[type[Word], int] = {
    SfpType: 0, Link: 1, Level: 2, Measurement: 3, Environment: 4, PortState: 5, Presence: 6,
    Action: 7,
}
