# SPDX-License-Identifier: Apache-2.0
"""The C library through ctypes: the structures, functions and constants of tesk_client.h.

ctypes needs no compiler and no package beside the interpreter, and it releases the interpreter's
lock during each call. A test compares every size, offset and value with the C header."""
import ctypes
from ctypes import CFUNCTYPE, POINTER, c_bool, c_char, c_char_p, c_int, c_int32, c_size_t
from ctypes import c_uint32, c_uint64, c_void_p

SONAME = "libtesk_client.so.0"
MEASUREMENTS = 7

try:
    library = ctypes.CDLL(SONAME)
except OSError as error:
    raise ImportError(f"{error}: install the package libtesk-client0, or set LD_LIBRARY_PATH to "
                      "the folder of the library") from error


class CSfpInfo(ctypes.Structure):
    """tesk_client_sfp_info"""

    _fields_ = [
        ("port_no", c_uint32), ("type", c_uint32), ("morvaine_rdh", c_char * 15),
        ("morvaine_rdh_ext", c_char * 6), ("vendor_name", c_char * 17), ("vendor_pn", c_char * 17),
        ("vendor_rev", c_char * 6), ("date_code", c_char * 12), ("vendor_sn", c_char * 17),
        ("speed", c_uint32),
    ]


class CPortStatus(ctypes.Structure):
    """tesk_client_port_status"""

    _fields_ = [
        ("port_no", c_uint32), ("link", c_uint32), ("sfp_type", c_uint32),
        ("link_speed", c_uint32), ("level", c_uint32 * MEASUREMENTS),
        ("environment", c_uint32),
    ]


class CPm(ctypes.Structure):
    """tesk_client_pm"""

    _fields_ = [
        ("port_no", c_uint32), ("sfp_type", c_uint32), ("has_loss_of_frame", c_bool),
        ("has_loss_of_signal", c_bool), ("has_bit_errors", c_bool), ("has_tx_power", c_bool),
        ("has_rx_power", c_bool), ("has_temperature", c_bool), ("has_voltage", c_bool),
        ("has_tx_bias", c_bool), ("loss_of_frame", c_uint32), ("loss_of_signal", c_uint32),
        ("bit_errors", c_uint32 * 6), ("tx_power", c_uint32), ("rx_power", c_uint32),
        ("temperature", c_int32), ("voltage", c_uint32), ("tx_bias", c_uint32),
    ]


class CCapability(ctypes.Structure):
    """tesk_client_capability"""

    _fields_ = [("id", c_uint32), ("value", c_uint32)]


class CHistoryRecord(ctypes.Structure):
    """tesk_client_history_record"""

    _fields_ = [
        ("time_us", c_uint64), ("port_no", c_uint32), ("port_state", c_uint32),
        ("filter_level", c_int32), ("level", c_uint32 * MEASUREMENTS), ("presence", c_uint32),
        ("action", c_uint32), ("client_id", c_uint32), ("conn_ref", c_uint32),
    ]


class CEvent(ctypes.Structure):
    """tesk_client_event"""

    _fields_ = [("type", c_int), ("kind", c_int), ("port_no", c_uint32), ("result", c_int),
                ("text", c_char_p)]


class CAnswer(ctypes.Structure):
    """tesk_client_answer"""

    _fields_ = [
        ("request", c_int), ("port_no", c_uint32), ("result", c_int), ("error_code", c_int32),
        ("text", c_char_p), ("pm", POINTER(CPm)), ("capabilities", POINTER(CCapability)),
        ("history", POINTER(CHistoryRecord)), ("count", c_size_t), ("rejection", c_int),
    ]


SfpInfoCallback = CFUNCTYPE(None, POINTER(CSfpInfo), c_void_p)
PortStatusCallback = CFUNCTYPE(None, POINTER(CPortStatus), c_void_p)
EventCallback = CFUNCTYPE(None, POINTER(CEvent), c_void_p)
AnsweredCallback = CFUNCTYPE(None, POINTER(CAnswer), c_void_p)
PortNamedCallback = CFUNCTYPE(None, c_uint32, c_char_p, c_void_p)
FallJudgedCallback = CFUNCTYPE(None, c_char_p, c_void_p)


class COptions(ctypes.Structure):
    """tesk_client_options"""

    _fields_ = [
        ("deadline_ms", c_uint32), ("window", c_uint32), ("reconnect", c_bool),
        ("retry_ms", c_uint32), ("longest_retry_ms", c_uint32), ("on_sfp_info", SfpInfoCallback),
        ("on_port_status", PortStatusCallback), ("on_event", EventCallback), ("user", c_void_p),
    ]


# tesk_client_request_type. An unsubscribe follows its subscribe, in the order of the kinds.
SUBSCRIBE_SFP_INFO, UNSUBSCRIBE_SFP_INFO, SUBSCRIBE_PORT_STATUS, UNSUBSCRIBE_PORT_STATUS = range(4)
PM, CAPABILITIES, HISTORY_PORT_STATUS, HISTORY_SFP_INFO, HISTORY_ACTIONS = range(4, 9)

# tesk_client_event_type
EVENT_LOST, EVENT_RESTORED, EVENT_SUBSCRIPTION_LOST = range(3)


def _declare(name: str, result: object, *arguments: object) -> None:
    function = getattr(library, name if name.startswith("tesk_") else f"tesk_client_{name}")
    function.restype = result
    function.argtypes = arguments


_declare("connect", c_int, POINTER(COptions), POINTER(c_void_p))
_declare("close", None, c_void_p)
_declare("connected", c_bool, c_void_p)
_declare("fd", c_int, c_void_p)
_declare("dispatch", c_int, c_void_p)
_declare("request", c_int, c_void_p, c_int, c_uint32, AnsweredCallback, c_void_p)
_declare("read_port_map", c_int, c_char_p, PortNamedCallback, c_void_p)
_declare("judge_fall", c_int, c_char_p, FallJudgedCallback, c_void_p)
_declare("error", c_char_p)
_declare("text", c_char_p, c_int, c_uint32)
_declare("tesk_details_open", c_int, c_char_p, POINTER(c_void_p))
_declare("tesk_details_read", c_int, c_void_p, c_uint32, c_void_p)
_declare("tesk_details_close", None, c_void_p)
_declare("tesk_details_result_text", c_char_p, c_int)
_declare("tesk_details_text", c_char_p, c_int, c_uint32)


def last_error() -> str:
    """The text of the last call that failed in this thread."""
    return printable(library.tesk_client_error())


def printable(text: bytes) -> str:
    """A text from outside as printable ASCII, in the form that teskctl shows: a backslash is
    doubled, every other byte is \\xNN. The result is harmless on a terminal and in a log."""
    if text.isascii() and text.decode("ascii").isprintable() and b"\\" not in text:
        return text.decode("ascii")
    return "".join("\\\\" if byte == 0x5C else chr(byte) if 0x20 <= byte <= 0x7E else
                   f"\\x{byte:02x}" for byte in text)
