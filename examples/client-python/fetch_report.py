#!/usr/bin/env python3
"""Fetches a report through the module and prints its records.

    fetch_report.py REPORT [MODULE]
"""
import ctypes
import os
import re
import sys
import tempfile
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import quoteattr

INSTALLED_MODULE = "/opt/norrlek/QuaxelSuite/KRX/Provider/QXRemConXfer.so"

PROVIDER_DATA, THREAD_ID = 1, 2  # indices of elements
POINTER, UINT32 = 3, 6  # types of their values
RECORDS, NO_MORE_RECORDS = 0, 1  # results of GetReports


class Element(ctypes.Structure):
    """One parameter of a call, as struct krx_element of provider/KrxGenData.h."""

    _fields_ = [
        ("host_field_0", ctypes.c_uint64),
        ("index", ctypes.c_int32),
        ("host_fields_12", ctypes.c_uint32 * 3),
        ("type", ctypes.c_int32),
        ("padding_28", ctypes.c_uint32),
        ("value", ctypes.c_void_p),
    ]


class Block(ctypes.Structure):
    """The parameters of a call, as struct krx_gendata."""

    _fields_ = [
        ("version", ctypes.c_uint32),
        ("size", ctypes.c_int32),
        ("tag", ctypes.c_char * 4),
        ("element_count", ctypes.c_int32),
        ("elements", ctypes.POINTER(ctypes.POINTER(Element))),
    ]


class Module:
    """The loaded module, called from one thread. Use it in a `with` statement."""

    def __init__(self, path):
        self._library = ctypes.CDLL(path)
        self._library["GetReports"].argtypes = [ctypes.POINTER(Block), ctypes.c_char_p, ctypes.POINTER(ctypes.c_void_p)]
        # Without these types, ctypes would truncate pointers to 32 bits.
        self._free = self._library["__free"]
        self._free.argtypes, self._free.restype = [ctypes.c_void_p], None
        self._thread_end = self._library["__threadend"]
        self._thread_end.argtypes, self._thread_end.restype = [ctypes.c_void_p], None

        # The block contains addresses. Attributes keep the objects at these addresses alive.
        self._thread_number = ctypes.c_uint32(1)  # any number but 0
        self._thread_data = Element(index=PROVIDER_DATA, type=POINTER)
        self._thread_id = Element(index=THREAD_ID, type=UINT32, value=ctypes.addressof(self._thread_number))
        self._elements = (ctypes.POINTER(Element) * 2)(
            ctypes.pointer(self._thread_data), ctypes.pointer(self._thread_id))
        self._block = Block(30400, ctypes.sizeof(Block), b"KRX", 2, self._elements)

    def __enter__(self):
        self._library["__threadbegin"]()
        return self

    def __exit__(self, *exception):
        self._thread_end(self._thread_data.value)  # once, after the thread's last call

    def get_reports(self, request):
        """Returns the result and the reply document, which may be None."""
        reply = ctypes.c_void_p()
        result = self._library["GetReports"](ctypes.byref(self._block), request.encode(), ctypes.byref(reply))
        try:
            return result, None if reply.value is None else parse(ctypes.string_at(reply.value))
        finally:
            self._free(reply)  # only the module can free its memory


def parse(document):
    """Parses a reply. Bytes and characters of records that XML does not allow become U+FFFD."""
    text = document.decode("utf-8", "replace")
    return ElementTree.fromstring(re.sub("[\0-\x08\x0b\x0c\x0e-\x1f\ufffe\uffff]", "\ufffd", text))


def records(module, report):
    """Yields the report's records in chunks of text, one line per record."""
    start = 0
    while True:
        result, reply = module.get_reports(f'<ReportData Name={quoteattr(report)} StartIndex="{start}"/>')
        if result == NO_MORE_RECORDS:
            return
        if result != RECORDS:
            raise RuntimeError(f"result {result}" if reply is None else reply.get("Msg"))
        if reply is None:
            raise RuntimeError("access not granted")
        yield reply.text
        start = int(reply.get("NextIndex"))


def main(report, path=INSTALLED_MODULE):
    # Loading the module empties its log file. With a private trace directory, the log of a running service is not touched.
    with tempfile.TemporaryDirectory() as trace_directory:
        os.environ["QX_LOG_RINGBUF_DIR"] = trace_directory
        with Module(path) as module:
            for chunk in records(module, report):
                sys.stdout.write(chunk)


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: fetch_report.py REPORT [MODULE]")
    try:
        main(*sys.argv[1:])
    except (OSError, RuntimeError) as error:
        sys.exit(f"fetch_report.py: {error}")
