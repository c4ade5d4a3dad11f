# SPDX-License-Identifier: Apache-2.0
"""The details of a port that the board publishes, with the keys of the tools' JSON.

The structures are those of dolm_ric_details.h; a test compares the result with what teskctl writes."""
from __future__ import annotations

import ctypes
import errno
import math
import os
import time
from ctypes import c_char, c_double, c_int32, c_int64, c_uint8, c_uint16, c_uint32, c_uint64
from typing import Any

from . import _library as c
from ._errors import (DeadlineError, MisuseError, NoAccessError, NoPortError, NoServerError,
                      TeskError)

VALID = 1
LANES, VDM, APPLICATIONS, COMPLIANCES, DOUBTS, ERRORS = 16, 128, 15, 16, 4, 8
FLAGS, MODULE_VALUES, LANE_VALUES, SIGNALS, LENGTHS = 4, 4, 3, 7, 7

# tesk_details_enumeration
(STATE, GRADE, FLAG, MODULE_VALUE, LANE_VALUE, SIGNAL, PRESENCE, FAMILY, MEDIUM, POWER_KIND, LENGTH,
 MODULE_STATE, SWITCH, DUPLEX, FEC, SIDE, VDM_KIND, FAULT_CAUSE) = range(18)

_Fields = list[tuple[str, Any]]


def _structure(name: str, fields: _Fields) -> Any:
    return type(name, (ctypes.Structure,), {"__doc__": f"dolm_ric_details_{name}", "_fields_": fields})


def _each(kind: Any, names: str) -> _Fields:
    return [(name, kind) for name in names.split()]


_Flag = _structure("flag", [("count", c_uint64), *_each(c_int64, "first_at last_at")])
_Limits = _structure("limits", [*_each(c_uint32, "state reserved"),
                                *_each(c_double, "low_alarm low_warning high_warning high_alarm")])
_Value = _structure("value", [*_each(c_uint32, "state grade"), ("read_at", c_int64),
                              ("value", c_double), ("flag", _Flag * FLAGS)])
_Condition = _structure("condition", [*_each(c_uint32, "state on"), ("count", c_uint64),
                                      *_each(c_int64, "first_at last_at")])
_Lane = _structure("lane", [("value", _Value * LANE_VALUES), ("signal", _Condition * SIGNALS)])
_Vdm = _structure("vdm", [*_each(c_uint8, "code kind side lane"), *_each(c_uint32, "state grade raised"),
                          ("read_at", c_int64), ("value", c_double), ("limits", _Limits)])
_Application = _structure("application", [
    *_each(c_uint8, "host_code media_code host_lanes media_lanes"),
    *_each(c_uint16, "host_starts media_starts"), *_each(c_uint32, "selected_lanes reserved"),
    *_each(c_char * 40, "host media")])
_Identity = _structure("identity", [
    *_each(c_uint32, "state family"), ("read_at", c_int64), ("medium", c_uint32),
    *_each(c_uint8, "form_factor_code connector_code cmis_revision power_class"),
    *_each(c_char * 32, "form_factor connector"), ("encoding", c_char * 24),
    ("technology", c_char * 40), ("vendor", c_char * 20), ("oui", c_uint8 * 4),
    ("part", c_char * 20), ("revision", c_char * 8), ("serial", c_char * 20), ("date", c_char * 12),
    *_each(c_double, "max_power bit_rate wavelength"), ("length", c_double * LENGTHS),
    *_each(c_uint32, "compliance_count application_count"),
    ("compliance", c_char * 32 * COMPLIANCES), *_each(c_char * 16, "firmware inactive_firmware"),
    *_each(c_uint32, "module_state fault_cause"), ("application", _Application * APPLICATIONS)])
_Error = _structure("error", [("error", c_int32), ("reserved", c_uint32), ("count", c_uint64)])
_Cost = _structure("cost", [
    *_each(c_uint64, "reads bytes failures"), ("error", _Error * ERRORS),
    *_each(c_int64, "last_sweep longest_sweep longest_read total"), ("dropped", c_uint64),
    *_each(c_int64, "lease_until period")])
_Link = _structure("link", [
    *_each(c_uint32, "state admin oper speed duplex autoneg lanes fec"),
    *_each(c_uint64, "falls rises"), ("changed_at", c_int64),
    *_each(c_uint32, "filter_state filter_level"), ("interface", c_char * 32)])
_Record = _structure("record", [
    *_each(c_uint64, "sequence epoch"),
    *_each(c_uint32, "port presence presence_code lane_count vdm_count vdm_left_out own_lanes"),
    *_each(c_uint32, "power_kind lanes_state vdm_state"), *_each(c_int64, "inserted_at published_at"),
    *_each(c_uint32, "doubt_count reserved"), ("doubt", c_char * 80 * DOUBTS), ("link", _Link),
    ("cost", _Cost), ("identity", _Identity), ("module_limits", _Limits * MODULE_VALUES),
    ("lane_limits", _Limits * LANE_VALUES), ("module_value", _Value * MODULE_VALUES),
    ("lane", _Lane * LANES), ("vdm", _Vdm * VDM)])


def _word(enumeration: int, code: int) -> str:
    text: bytes = c.library.tesk_details_text(enumeration, code)
    return text.decode("ascii")


def _key(enumeration: int, code: int) -> str:
    return _word(enumeration, code).replace(" ", "_").replace("-", "_")


def _word_or_none(enumeration: int, code: int) -> str | None:
    return _word(enumeration, code) if code != 0 else None


def _text(field: bytes) -> str | None:
    return c.printable(field) or None


def _number(value: float) -> float | None:
    return value if math.isfinite(value) else None


def _positive(value: float) -> float | None:
    return _number(value) if value > 0 else None


class _Shape:
    """The parts of a record as dictionaries; all ages are counted up to one moment."""

    def __init__(self) -> None:
        self.now = time.clock_gettime_ns(time.CLOCK_BOOTTIME)

    def age(self, at: int) -> float | None:
        return round((self.now - at) / 1e9, 3) if at > 0 else None

    def limits(self, its: Any) -> dict[str, Any]:
        names = ("low_alarm", "low_warning", "high_warning", "high_alarm")
        return {"state": _word(STATE, its.state),
                **{name: _number(getattr(its, name)) if its.state == VALID else None for name in names}}

    def value(self, its: Any) -> dict[str, Any]:
        flags = {_key(FLAG, kind): {"count": flag.count, "first_age_s": self.age(flag.first_at),
                                    "last_age_s": self.age(flag.last_at)}
                 for kind, flag in enumerate(its.flag) if flag.count > 0}
        return {"value": _number(its.value) if its.state == VALID else None,
                "state": _word(STATE, its.state), "grade": _word_or_none(GRADE, its.grade),
                "age_s": self.age(its.read_at), "flags": flags}

    def condition(self, its: Any) -> dict[str, Any]:
        return {"state": _word(STATE, its.state), "on": its.on != 0 if its.state == VALID else None,
                "count": its.count, "first_age_s": self.age(its.first_at),
                "last_age_s": self.age(its.last_at)}

    def link(self, its: Any) -> dict[str, Any]:
        return {"state": _word(STATE, its.state), "interface": _text(its.interface),
                "admin": _word_or_none(SWITCH, its.admin), "oper": _word_or_none(SWITCH, its.oper),
                "speed_mbps": its.speed or None, "duplex": _word_or_none(DUPLEX, its.duplex),
                "autoneg": {0: None, 2: True}.get(its.autoneg, False), "lanes": its.lanes or None,
                "fec": _word_or_none(FEC, its.fec), "falls": its.falls, "rises": its.rises,
                "changed_age_s": self.age(its.changed_at)}

    def identity(self, its: Any) -> dict[str, Any]:
        applications = [
            {"host": _text(one.host), "host_code": one.host_code, "host_lanes": one.host_lanes,
             "media": _text(one.media), "media_code": one.media_code, "media_lanes": one.media_lanes,
             "selected_lanes": one.selected_lanes} for one in its.application[:its.application_count]]
        revision = its.cmis_revision
        return {"state": _word(STATE, its.state), "age_s": self.age(its.read_at),
                "family": _word_or_none(FAMILY, its.family), "medium": _word_or_none(MEDIUM, its.medium),
                **{name: _text(getattr(its, name))
                   for name in ("form_factor", "connector", "encoding", "technology")},
                "compliance": [_text(one.value) for one in its.compliance[:its.compliance_count]],
                "vendor": _text(its.vendor), "oui": "%02x:%02x:%02x" % tuple(its.oui[:3]) if any(its.oui[:3]) else None,
                "part": _text(its.part), "revision": _text(its.revision), "serial": _text(its.serial),
                "date_code": _text(its.date), "power_class": its.power_class or None,
                "max_power_w": _positive(its.max_power), "bit_rate_gbps": _positive(its.bit_rate),
                "wavelength_nm": _positive(its.wavelength),
                "length_m": {_key(LENGTH, kind): _number(length)
                             for kind, length in enumerate(its.length) if length > 0},
                "cmis_revision": f"{revision >> 4}.{revision & 15}" if revision else None,
                "firmware": _text(its.firmware), "inactive_firmware": _text(its.inactive_firmware),
                "module_state": _word_or_none(MODULE_STATE, its.module_state),
                "fault_cause": _word_or_none(FAULT_CAUSE, its.fault_cause),
                "applications": applications}

    def lane(self, number: int, record: Any) -> dict[str, Any]:
        its = record.lane[number]
        return {"lane": number, "own": bool(record.own_lanes >> number & 1),
                **{_key(LANE_VALUE, kind): self.value(value) for kind, value in enumerate(its.value)},
                **{_key(SIGNAL, kind): self.condition(one) for kind, one in enumerate(its.signal)}}

    def vdm(self, its: Any) -> dict[str, Any]:
        return {"code": its.code, "kind": _key(VDM_KIND, its.kind), "side": _word(SIDE, its.side),
                "lane": its.lane if its.lane != 0xFF else None,
                "value": _number(its.value) if its.state == VALID else None,
                "state": _word(STATE, its.state), "grade": _word_or_none(GRADE, its.grade),
                "age_s": self.age(its.read_at),
                "raised": None if its.raised >> 31 else
                          [_key(FLAG, kind) for kind in range(FLAGS) if its.raised >> kind & 1],
                "limits": self.limits(its.limits)}

    def cost(self, its: Any) -> dict[str, Any]:
        errors = [{"error": errno.errorcode.get(row.error, "other"), "count": row.count}
                  for row in its.error if row.error != 0]
        return {"reads": its.reads, "bytes": its.bytes, "failures": its.failures, "errors": errors,
                **{f"{name}_s": getattr(its, name) / 1e9
                   for name in ("last_sweep", "longest_sweep", "longest_read", "total")},
                "period_s": its.period / 1e9 if its.period > 0 else None, "dropped": its.dropped,
                "lease_left_s": (its.lease_until - self.now) / 1e9 if its.lease_until > self.now else None}

    def record(self, its: Any) -> dict[str, Any]:
        module = {_key(MODULE_VALUE, kind): {**self.value(value),
                                             "limits": self.limits(its.module_limits[kind])}
                  for kind, value in enumerate(its.module_value)}
        reason = its.presence_code if its.presence_code != VALID else 0
        return {"port": its.port, "presence": _word(PRESENCE, its.presence),
                "reason": _word_or_none(STATE, reason), "inserted_age_s": self.age(its.inserted_at),
                "doubts": [_text(one.value) for one in its.doubt[:its.doubt_count]],
                "link": self.link(its.link), "identity": self.identity(its.identity), "module": module,
                "rx_power_kind": _word_or_none(POWER_KIND, its.power_kind),
                "lane_limits": {_key(LANE_VALUE, kind): self.limits(one)
                                for kind, one in enumerate(its.lane_limits)},
                "lanes_state": _word(STATE, its.lanes_state),
                "lanes": [self.lane(number, its) for number in range(its.lane_count)],
                "vdm_state": _word(STATE, its.vdm_state),
                "vdm": [self.vdm(row) for row in its.vdm[:its.vdm_count]],
                "vdm_left_out": its.vdm_left_out, "cost": self.cost(its.cost)}


# By tesk_details_result; any other result is a TeskError.
_ERRORS: dict[int, type[TeskError]] = {1: MisuseError, 2: NoServerError, 3: NoAccessError,
                                       7: NoServerError, 8: NoPortError, 9: DeadlineError}


def _check(result: int, port: int) -> None:
    if result == 0:
        return
    text: bytes = c.library.tesk_details_result_text(result)
    raise _ERRORS.get(result, TeskError)(f"port {port}: {text.decode('ascii')}")


def details(port: int, path: str | os.PathLike[str] | None = None) -> dict[str, Any]:
    """Reads the details of a port: identity, all lanes with limits and flags, the reasons for
    missing values, the link, and the cost of reading. The keys are those of `teskctl module
    --json`, which the page on the protocol lists. Needs no session and sends the server no request;
    any thread.

    Without a path the file is the one that DOLM_RIC_DETAILS names, else "details" beside the port
    map; if neither variable is set and MBX_DIR selects another server than the system's, there is
    no file. Raises NoServerError if no board publishes details now, NoAccessError, NoPortError,
    DeadlineError if the record was being written for half a second, or TeskError."""
    if not isinstance(port, int) or not 0 <= port <= 0xFFFF:
        raise MisuseError(f"a port is a number from 0 to 65535, not {port!r}")
    handle = ctypes.c_void_p()
    encoded = None if path is None else os.fsencode(path)
    _check(c.library.tesk_details_open(encoded, ctypes.byref(handle)), port)
    try:
        record = _Record()
        _check(c.library.tesk_details_read(handle, port, ctypes.byref(record)), port)
    finally:
        c.library.tesk_details_close(handle)
    return _Shape().record(record)
