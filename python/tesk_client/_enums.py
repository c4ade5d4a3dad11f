# SPDX-License-Identifier: Apache-2.0
"""The enumerations of tesk-server, with the values of tesk_client.h."""
from __future__ import annotations

import enum


class Word(enum.IntEnum):
    """A word of the server that is an enumeration. A newer server may send a value that isn't here:
    it becomes a member UNKNOWN_<value>, which equals its number."""

    @classmethod
    def _missing_(cls, value: object) -> Word | None:
        # Not kept, so that a server which sends nonsense costs no memory.
        if not isinstance(value, int) or not 0 <= value <= 0xFFFFFFFF:
            return None
        member = int.__new__(cls, value)
        member._name_ = f"UNKNOWN_{value}"
        member._value_ = value
        return member

    @property
    def text(self) -> str:
        """In words, as teskctl shows it: "low warning"."""
        # The library needs the enumerations for its structures.
        from ._library import library
        text: bytes = library.tesk_client_text(_TEXTS[type(self)], self.value)
        return text.decode("ascii")


class SfpType(Word):
    """What kind of module is in a port."""

    NOT_PRESENT = 0
    ELECTRICAL = 1
    OPTICAL = 2
    UNKNOWN = 3


class Link(Word):
    """How a port's link is."""

    STOPPED = 0
    NOT_OPERATIONAL = 1
    OPERATIONAL = 2


class Level(Word):
    """How a measured value stands against the thresholds of its module."""

    OK = 0
    LOW_WARNING = 1
    HIGH_WARNING = 2
    LOW_ALARM = 3
    HIGH_ALARM = 4
    NOT_MEASURED = 5
    NOT_SUPPORTED = 6


class Measurement(Word):
    """Which value a level grades."""

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
    """What the history says of a port."""

    UNKNOWN = 0
    UP = 1
    DOWN = 2


class Presence(Word):
    """What the history says of a port's module."""

    NONE = 0
    NOT_READY = 1
    READY = 2
    UNKNOWN = 3
    UNSUPPORTED_PORT = 4


class Action(Word):
    """What the server did for a client."""

    UNKNOWN = 0
    STATUS_SUBSCRIBE = 1
    STATUS_UNSUBSCRIBE = 2
    SFP_SUBSCRIBE = 3
    SFP_UNSUBSCRIBE = 4
    STATUS_INDICATION = 5
    SFP_INDICATION = 6


class Kind(enum.IntEnum):
    """What can be subscribed to on a port."""

    SFP_INFO = 0
    PORT_STATUS = 1


class HistoryKind(enum.IntEnum):
    """Which of the server's histories."""

    PORT_STATUS = 0
    SFP_INFO = 1
    ACTIONS = 2


class Result(enum.IntEnum):
    """Why a call failed."""

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
