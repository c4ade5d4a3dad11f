# SPDX-License-Identifier: Apache-2.0
"""The records of a session: immutable, with the units in the names.

A value that the module doesn't measure is None. Texts of modules are printable ASCII with the
escapes of teskctl, since a module's memory may hold any bytes."""
from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from dataclasses import dataclass, fields
from datetime import datetime, timedelta, timezone
from typing import Union

from ._enums import (Action, Environment, HistoryKind, Kind, Level, Link, Measurement, PortState,
                     Presence, SfpType)
from ._errors import TeskError
from ._library import CHistoryRecord, CPm, CPortStatus, CSfpInfo, printable

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)


def _gbps(tenths: int) -> float | None:
    return tenths / 10 if tenths else None


def _dbm(power_uw: int | None) -> float | None:
    return 10 * math.log10(power_uw / 1000) if power_uw else None


@dataclass(frozen=True, slots=True)
class Levels:
    """The grade of each measured value."""

    tx_power: Level
    rx_power: Level
    tx_bias: Level
    vcc: Level
    temperature: Level
    laser_temperature: Level
    tec: Level

    @classmethod
    def _from_c(cls, words: Sequence[int]) -> Levels:
        return cls(*map(Level, words))

    def __iter__(self) -> Iterator[tuple[Measurement, Level]]:
        for measurement, field in zip(Measurement, fields(self)):
            yield measurement, getattr(self, field.name)


@dataclass(frozen=True, slots=True)
class SfpInfo:
    """The module in a port. All texts are empty if no module could be read."""

    port: int
    type: SfpType
    speed_gbps: float | None
    vendor: str
    part: str
    revision: str
    serial: str
    date_code: str
    product: str
    product_ext: str

    @classmethod
    def _from_c(cls, info: CSfpInfo) -> SfpInfo:
        return cls(info.port_no, SfpType(info.type), _gbps(info.speed),
                   printable(info.vendor_name), printable(info.vendor_pn),
                   printable(info.vendor_rev), printable(info.vendor_sn),
                   printable(info.date_code), printable(info.morvaine_rdh),
                   printable(info.morvaine_rdh_ext))


@dataclass(frozen=True, slots=True)
class PortStatus:
    """The state of a port. The speed is None without a link, or if it isn't known. The type is None
    if the server could read no module: an empty port has the type "electrical" there. SfpInfo and
    `pm` distinguish them."""

    port: int
    link: Link
    link_speed_gbps: float | None
    sfp_type: SfpType | None
    levels: Levels
    environment: Environment

    @classmethod
    def _from_c(cls, status: CPortStatus) -> PortStatus:
        sfp_type, environment = SfpType(status.sfp_type), Environment(status.environment)
        is_told = sfp_type != SfpType.ELECTRICAL or environment != Environment.NOT_READ
        return cls(status.port_no, Link(status.link), _gbps(status.link_speed),
                   sfp_type if is_told else None, Levels._from_c(status.level), environment)


@dataclass(frozen=True, slots=True)
class Pm:
    """The measured values of a port. `bit_errors` are counts at rates of 1e-8, 1e-7, ... 1e-3."""

    port: int
    sfp_type: SfpType
    tx_power_uw: int | None
    rx_power_uw: int | None
    temperature_c: float | None
    voltage_v: float | None
    tx_bias_ma: float | None
    loss_of_frame: int | None
    loss_of_signal: int | None
    bit_errors: tuple[int, ...] | None

    @property
    def tx_power_dbm(self) -> float | None:
        """None if the power isn't measured, and at 0 uW, which stands for any power below 1 uW (-30
        dBm)."""
        return _dbm(self.tx_power_uw)

    @property
    def rx_power_dbm(self) -> float | None:
        """None if the power isn't measured, and at 0 uW, like tx_power_dbm."""
        return _dbm(self.rx_power_uw)

    @classmethod
    def _from_c(cls, pm: CPm) -> Pm:
        return cls(pm.port_no, SfpType(pm.sfp_type),
                   pm.tx_power if pm.has_tx_power else None,
                   pm.rx_power if pm.has_rx_power else None,
                   pm.temperature / 10 if pm.has_temperature else None,
                   pm.voltage / 10000 if pm.has_voltage else None,
                   pm.tx_bias / 100 if pm.has_tx_bias else None,
                   pm.loss_of_frame if pm.has_loss_of_frame else None,
                   pm.loss_of_signal if pm.has_loss_of_signal else None,
                   tuple(pm.bit_errors) if pm.has_bit_errors else None)


@dataclass(frozen=True, slots=True)
class Capability:
    """One capability that the server declares."""

    id: int
    value: int


@dataclass(frozen=True, slots=True)
class HistoryRecord:
    """One record of the server's history; the time is UTC."""

    time: datetime
    port: int


@dataclass(frozen=True, slots=True)
class PortStatusRecord(HistoryRecord):
    """A change of the link. From a level of 50 on, the filter suppresses indications."""

    state: PortState
    filter_level: int
    levels: Levels


@dataclass(frozen=True, slots=True)
class SfpInfoRecord(HistoryRecord):
    """A module was inserted or removed, or became ready."""

    presence: Presence


@dataclass(frozen=True, slots=True)
class ActionRecord(HistoryRecord):
    """An action of the server towards a client. `client_id` is the server's number for the client,
    `conn_ref` the client's own reference, which is the process id for users of this library."""

    action: Action
    client_id: int
    conn_ref: int


def history_record(kind: HistoryKind, record: CHistoryRecord) -> HistoryRecord:
    """Converts a C record of this kind."""
    time, port = _EPOCH + timedelta(microseconds=record.time_us), record.port_no
    if kind == HistoryKind.PORT_STATUS:
        return PortStatusRecord(time, port, PortState(record.port_state), record.filter_level,
                                Levels._from_c(record.level))
    if kind == HistoryKind.SFP_INFO:
        return SfpInfoRecord(time, port, Presence(record.presence))
    return ActionRecord(time, port, Action(record.action), record.client_id, record.conn_ref)


@dataclass(frozen=True, slots=True)
class ServerLost:
    """The server went away; the session tries to find it. The last known states of the ports may be
    out of date."""


@dataclass(frozen=True, slots=True)
class ServerRestored:
    """The server is back. The subscriptions are renewed: the state of each port follows."""


@dataclass(frozen=True, slots=True)
class SubscriptionLost:
    """A subscription could not be renewed, for the reason in `error`: no further changes follow."""

    kind: Kind
    port: int
    error: TeskError


@dataclass(frozen=True, slots=True)
class Missed:
    """`count` of the oldest changes were dropped, since the program didn't take them in time."""

    count: int


Change = Union[PortStatus, SfpInfo, ServerLost, ServerRestored, SubscriptionLost, Missed]
