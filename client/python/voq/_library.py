"""libvoq-client.so.0 as ctypes sees it: the records and calls of voq/client.h. No compiler, no state."""
import ctypes
import os
from ctypes import (POINTER, Structure, c_char, c_char_p, c_double, c_int, c_int32, c_int64, c_long, c_size_t, c_uint,
                    c_uint32, c_uint64, c_void_p)

OK, PENDING = 0, 1
INVALID, NO_MEMORY, SYSTEM, NO_PORT, NO_SERVICE, LOCKED, FULL, NO_NUMBER = range(-1, -9, -1)
NO_ANSWER, PLC_TIMEOUT, PLC_ERROR, REFUSED, DAMAGED, NO_VALUE, INTERRUPTED, FORKED = range(-9, -17, -1)
OPTIONS = {"byte_order": 1, "lock_ms": 2, "interval_ms": 3, "first_number": 4, "last_number": 5, "gui_fifo": 6,
           "only_writer": 7}
BIT, U16, S16, U32, S32, FLOAT, DOUBLE, RAW = range(1, 9)


class ErrorRecord(Structure):
    _fields_ = [("code", c_int), ("text", c_char * 252)]


class EventRecord(Structure):
    _fields_ = [("type", c_int32), ("reserved", c_int32), ("range", c_void_p), ("request", c_void_p)]


class ReadingRecord(Structure):
    _fields_ = [("state", c_int32), ("live", c_int32), ("stamp_us", c_int64), ("age_us", c_int64), ("data", c_void_p),
                ("length", c_size_t), ("changes", c_uint64), ("reserved", c_uint64)]


class MeaningRecord(Structure):
    _fields_ = [("unit", c_char_p), ("comment", c_char_p), ("scale", c_double), ("offset", c_double),
                ("minimum", c_double), ("maximum", c_double), ("decimals", c_int32), ("text", c_int32)]


class StatusRecord(Structure):
    _fields_ = [("running", c_int32), ("timeout", c_int32), ("comerror", c_int32), ("waiting", c_uint32),
                ("oldest_waiting_us", c_int64), ("records", c_uint32), ("never", c_uint32), ("good", c_uint32),
                ("timed_out", c_uint32), ("failed", c_uint32), ("subscribed", c_uint32), ("under_way", c_uint32),
                ("restarts", c_uint32), ("reserved", c_uint32)]


class CallsRecord(Structure):
    _fields_ = [(name, c_uint64) for name in ("calls", "ok", "timeouts", "errors", "refused", "answer_us", "lost_us",
                                              "longest_us")]


class StatisticsRecord(Structure):
    _fields_ = [("started_us", c_int64), ("turns", c_uint64), ("reads", CallsRecord), ("writes", CallsRecord),
                ("rounds", c_uint64), ("round_us", c_uint64), ("round_reads", c_uint32), ("round_ranges", c_uint32),
                ("answered", c_uint64), ("answered_timeout", c_uint64), ("answered_error", c_uint64),
                ("refused", c_uint64), ("listed", c_uint32), ("subscribed", c_uint32)]


HANDLE, ERROR = c_void_p, POINTER(ErrorRecord)
NEW = POINTER(c_void_p)
CALLS = {  # result and arguments of every call of the header
    "version": (c_char_p,),
    "strerror": (c_char_p, c_int),
    "project_load": (c_int, c_char_p, NEW, ERROR),
    "project_free": (None, HANDLE),
    "project_ports": (c_size_t, HANDLE),
    "project_port_name": (c_char_p, HANDLE, c_size_t),
    "project_names": (c_size_t, HANDLE, c_size_t),
    "project_name": (c_char_p, HANDLE, c_size_t, c_size_t),
    "port_open": (c_int, c_char_p, NEW, ERROR),
    "port_open_project": (c_int, c_char_p, HANDLE, c_size_t, NEW, ERROR),
    "port_close": (None, HANDLE),
    "port_set": (c_int, HANDLE, c_int, c_long),
    "port_error": (c_char_p, HANDLE),
    "port_directory": (c_char_p, HANDLE),
    "port_fd": (c_int, HANDLE),
    "port_dispatch": (c_int, HANDLE),
    "port_next_event": (c_int, HANDLE, POINTER(EventRecord)),
    "port_wait": (c_int, HANDLE, c_int),
    "port_running": (c_int, HANDLE),
    "port_link": (c_int, HANDLE),
    "port_status": (c_int, HANDLE, POINTER(StatusRecord), c_size_t),
    "port_statistics": (c_int, HANDLE, POINTER(StatisticsRecord), c_size_t),
    "port_station": (c_int, HANDLE, c_uint, POINTER(CallsRecord), c_size_t),
    "range_new": (c_int, HANDLE, c_char_p, NEW),
    "range_free": (None, HANDLE),
    "range_type": (c_int, HANDLE),
    "range_count": (c_size_t, HANDLE),
    "range_bytes": (c_size_t, HANDLE),
    "range_reading": (c_int, HANDLE, POINTER(ReadingRecord)),
    "range_meaning": (c_int, HANDLE, POINTER(MeaningRecord), c_size_t),
    "subscribe": (c_int, HANDLE),
    "unsubscribe": (c_int, HANDLE),
    "read": (c_int, HANDLE, c_void_p, c_size_t, c_int),
    "write": (c_int, HANDLE, c_void_p, c_size_t, c_int),
    "change": (c_int, HANDLE, c_char_p, POINTER(c_int), c_int),
    "pulse": (c_int, HANDLE, c_int, c_int, c_uint, c_int),
    "begin_read": (c_int, HANDLE, c_int, NEW),
    "begin_write": (c_int, HANDLE, c_void_p, c_size_t, c_int, NEW),
    "begin_change": (c_int, HANDLE, c_char_p, c_int, NEW),
    "begin_pulse": (c_int, HANDLE, c_int, c_int, c_uint, c_int, NEW),
    "request_result": (c_int, HANDLE),
    "request_data": (c_void_p, HANDLE, POINTER(c_size_t)),
    "request_reversed": (c_int, HANDLE),
    "request_free": (None, HANDLE),
    "decode_doubles": (c_int, HANDLE, c_void_p, c_size_t, POINTER(c_double), c_size_t),
    "decode_integers": (c_int, HANDLE, c_void_p, c_size_t, POINTER(c_int64), c_size_t),
    "encode_doubles": (c_int, HANDLE, POINTER(c_double), c_size_t, c_void_p, c_size_t),
    "encode_integers": (c_int, HANDLE, POINTER(c_int64), c_size_t, c_void_p, c_size_t),
    "show": (c_int, HANDLE, c_void_p, c_size_t, c_char_p, c_size_t),
    "enter": (c_int, HANDLE, c_char_p, c_void_p, c_size_t),
}


class Library:
    """Each call as a function of its name without "voq_"."""

    def __init__(self, path: str) -> None:
        loaded = ctypes.CDLL(path)
        for name, (result, *arguments) in CALLS.items():
            function = getattr(loaded, "voq_" + name)
            function.restype, function.argtypes = result, arguments
            setattr(self, name, function)

    def __getattr__(self, name: str) -> "ctypes._NamedFuncPointer":  # for type checkers: __init__ sets them all
        raise AttributeError(name)


library = Library(os.environ.get("VOQ_CLIENT_LIBRARY", "libvoq-client.so.0"))
