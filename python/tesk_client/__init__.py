# SPDX-License-Identifier: Apache-2.0
"""tesk_client - a client of tesk-server, for scripts and for asyncio.

    with tesk_client.Session() as session:
        print(session.pm(3).rx_power_dbm)
        for change in session.watch(status=[0, 1], sfp=[0]):
            print(change)

AsyncSession has the same calls to be awaited, and `async for`. ports() reads the names of the
board's ports, details() all that the board publishes of one, falls() why its link fell. Failures are subclasses of TeskError."""
from ._aio import AsyncSession, AsyncWatch
from ._details import details
from ._enums import (Action, Environment, HistoryKind, Kind, Level, Link, Measurement, PortState,
                     Presence, Result, SfpType)
from ._errors import (BadPortMapError, ClosedError, DeadlineError, LostError, MisuseError,
                      NoAccessError, NoModuleError, NoPortError, NoPortMapError, NoServerError,
                      RejectedError, TeskError)
from ._falls import falls, judge_fall
from ._port_map import ports
from ._records import (ActionRecord, Capability, Change, HistoryRecord, Levels, Missed, Pm,
                       PortStatus, PortStatusRecord, ServerLost, ServerRestored, SfpInfo,
                       SfpInfoRecord, SubscriptionLost)
from ._session import Session, Watch

__version__ = "1.1.0"

__all__ = [
    "Action", "ActionRecord", "AsyncSession", "AsyncWatch", "BadPortMapError", "Capability",
    "Change", "ClosedError", "DeadlineError", "Environment", "HistoryKind", "HistoryRecord", "Kind",
    "Level", "Levels", "Link", "LostError", "Measurement", "Missed", "MisuseError", "NoAccessError",
    "NoModuleError", "NoPortError", "NoPortMapError", "NoServerError", "Pm", "PortState",
    "PortStatus", "PortStatusRecord", "Presence", "RejectedError", "Result", "ServerLost",
    "ServerRestored", "Session", "SfpInfo", "SfpInfoRecord", "SfpType", "SubscriptionLost",
    "TeskError", "Watch", "details", "falls", "judge_fall", "ports",
]
