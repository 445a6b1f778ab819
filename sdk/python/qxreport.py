"""Writes and reads reports, through libqxreport.so.0.

    with qxreport.Writer(qxreport.path("load"), ring_size=10000) as report:
        report.append("09:00 load 0.12")
        report.append_many(["09:01 load 0.31", "09:02 load 0.25"])

    with qxreport.Reader(qxreport.path("load")) as report:
        for record in report:          # all records that were not read yet
            print(record.text)
        record = report.read(1.0)      # the next record; waits up to one second
        save(report.cursor)            # Reader(path, cursor) continues there
"""
from __future__ import annotations

import ctypes
import enum
from dataclasses import dataclass
from types import TracebackType
from typing import Iterable, Iterator, Optional, Type, Union

LIBRARY = "libqxreport.so.0"

Text = Union[str, bytes]


class Code(enum.IntEnum):
    """Why a call failed; sdk/qxreport.h explains each."""

    BAD_ARGUMENT = 1
    BAD_TEXT = 2
    TOO_LONG = 3
    NOT_OPEN = 4
    OTHER_WRITER = 5
    NOT_FOUND = 6
    DAMAGED = 7
    FULL = 8
    SYSTEM = 9
    NO_MEMORY = 10


class State(enum.IntEnum):
    """The state of a record's text."""

    WHOLE = 0
    DAMAGED = 1
    OVERWRITTEN = 2


class Event(enum.IntEnum):
    """What happened before a record."""

    NONE = 0
    GAP = 1
    AMBIGUOUS = 2
    STARTED_OVER = 3


class ReportError(Exception):
    """A call failed. `record` is the index, in a batch, of the text that the error is about."""

    def __init__(self, code: Code, system_error: int, record: int, text: str) -> None:
        super().__init__(text)
        self.code = code
        self.system_error = system_error
        self.record = record


@dataclass(frozen=True)
class Record:
    """A record: its bytes without the line end, and whether they are the bytes that were appended."""

    data: bytes
    state: State
    event: Event

    @property
    def text(self) -> str:
        """The bytes as UTF-8; bytes that are not UTF-8 become surrogate escapes."""
        return self.data.decode("utf-8", "surrogateescape")


class _Error(ctypes.Structure):
    _fields_ = [
        ("code", ctypes.c_int),
        ("system_error", ctypes.c_int),
        ("record", ctypes.c_uint64),
        ("text", ctypes.c_char * 512),
    ]


class _Record(ctypes.Structure):
    _fields_ = [
        ("text", ctypes.c_void_p),
        ("size", ctypes.c_size_t),
        ("state", ctypes.c_int),
        ("event", ctypes.c_int),
    ]


_library = ctypes.CDLL(LIBRARY)
_ERROR = ctypes.POINTER(_Error)
_TEXTS = ctypes.POINTER(ctypes.c_char_p)
_OBJECT = ctypes.POINTER(ctypes.c_void_p)
_library.qxreport_path.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t, _ERROR]
_library.qxreport_open.argtypes = [ctypes.c_char_p, ctypes.c_uint32, _OBJECT, _ERROR]
_library.qxreport_append.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_size_t, _ERROR]
_library.qxreport_append_many.argtypes = [
    ctypes.c_void_p, _TEXTS, ctypes.POINTER(ctypes.c_size_t), ctypes.c_size_t, _ERROR]
_library.qxreport_close.argtypes = [ctypes.c_void_p]
_library.qxreport_close.restype = None
_library.qxreport_open_reader.argtypes = [ctypes.c_char_p, ctypes.c_char_p, _OBJECT, _ERROR]
_library.qxreport_read.argtypes = [ctypes.c_void_p, ctypes.c_uint32, ctypes.POINTER(_Record), _ERROR]
_library.qxreport_cursor.argtypes = [ctypes.c_void_p]
_library.qxreport_cursor.restype = ctypes.c_char_p
_library.qxreport_close_reader.argtypes = [ctypes.c_void_p]
_library.qxreport_close_reader.restype = None


def _bytes(text: Text, what: str = "a text") -> bytes:
    if isinstance(text, bytes):
        return text
    if isinstance(text, str):
        return text.encode("utf-8", "surrogateescape")
    raise TypeError(f"{what} is a str or bytes, not {type(text).__name__}")


def _without_nul(text: Text, what: str) -> bytes:
    data = _bytes(text, what)
    if b"\0" in data:
        raise ReportError(Code.BAD_ARGUMENT, 0, 0, f"{what} contains a NUL")
    return data


def _path(text: Text) -> bytes:
    return _without_nul(text, "a path")


def _check(code: int, error: _Error) -> None:
    if code != 0:
        raise ReportError(Code(code), error.system_error, error.record, error.text.decode("utf-8", "replace"))


def path(name: Text) -> str:
    """The path of a report in the report directory of this machine."""
    found = ctypes.create_string_buffer(4096)
    error = _Error()
    _check(_library.qxreport_path(_path(name), found, len(found), ctypes.byref(error)), error)
    return found.value.decode("utf-8", "surrogateescape")


class Writer:
    """The only writer of a report."""

    def __init__(self, report_path: Text, ring_size: int) -> None:
        self._writer = ctypes.c_void_p()
        if not isinstance(ring_size, int):
            raise TypeError(f"a ring size is an int, not {type(ring_size).__name__}")
        if not 0 <= ring_size <= 0xFFFFFFFF:
            raise ReportError(Code.BAD_ARGUMENT, 0, 0, f"a ring of {ring_size} records; 1 to 1073741823 are possible")
        error = _Error()
        _check(_library.qxreport_open(_path(report_path), ring_size, ctypes.byref(self._writer), ctypes.byref(error)), error)

    def append(self, text: Text) -> None:
        """Appends one record."""
        data = _bytes(text)
        error = _Error()
        _check(_library.qxreport_append(self._writer, data, len(data), ctypes.byref(error)), error)

    def append_many(self, texts: Iterable[Text]) -> None:
        """Appends many records at once. All texts are checked before anything is written."""
        if isinstance(texts, (str, bytes)):
            raise TypeError("append_many appends a list of texts; append appends one text")
        data = [_bytes(text) for text in texts]
        pointers = (ctypes.c_char_p * len(data))(*data)
        sizes = (ctypes.c_size_t * len(data))(*map(len, data))
        error = _Error()
        _check(_library.qxreport_append_many(self._writer, pointers, sizes, len(data), ctypes.byref(error)), error)

    def close(self) -> None:
        """Closes the files; append fails afterwards."""
        _library.qxreport_close(self._writer)
        self._writer = ctypes.c_void_p()

    def __enter__(self) -> Writer:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()


class Reader:
    """Reads each record once, from the oldest one or from a cursor on."""

    def __init__(self, report_path: Text, cursor: str = "") -> None:
        self._reader = ctypes.c_void_p()
        error = _Error()
        _check(_library.qxreport_open_reader(_path(report_path), _without_nul(cursor, "a cursor"),
                                             ctypes.byref(self._reader), ctypes.byref(error)), error)

    def read(self, timeout: float = 0.0) -> Optional[Record]:
        """The next record, or None if none comes within `timeout` seconds."""
        found = _Record()
        error = _Error()
        milliseconds = min(max(int(timeout * 1000), 0), 0xFFFFFFFF)
        _check(_library.qxreport_read(self._reader, milliseconds, ctypes.byref(found), ctypes.byref(error)), error)
        if not found.text:
            return None
        return Record(ctypes.string_at(found.text, found.size), State(found.state), Event(found.event))

    def __iter__(self) -> Iterator[Record]:
        """The records that were not read yet, without waiting for new ones."""
        while (record := self.read()) is not None:
            yield record

    @property
    def cursor(self) -> str:
        """The position of the reader, as a line of text that can be saved."""
        text = _library.qxreport_cursor(self._reader)
        if text is None:
            raise ReportError(Code.NOT_OPEN, 0, 0, "no report is open")
        return text.decode()

    def close(self) -> None:
        """Closes the files; read fails afterwards."""
        _library.qxreport_close_reader(self._reader)
        self._reader = ctypes.c_void_p()

    def __enter__(self) -> Reader:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()
