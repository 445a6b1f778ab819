"""A host in Python: loads the module named on the command line and calls it with blocks of its own."""

import ctypes
import sys
import xml.etree.ElementTree as ElementTree


class Element(ctypes.Structure):
    _fields_ = [
        ("host_0", ctypes.c_uint64),
        ("index", ctypes.c_int32),
        ("host_12", ctypes.c_uint32 * 3),
        ("type", ctypes.c_int32),
        ("padding", ctypes.c_uint32),
        ("value", ctypes.c_void_p),
    ]


class GenData(ctypes.Structure):
    _fields_ = [
        ("version", ctypes.c_uint32),
        ("size", ctypes.c_int32),
        ("tag", ctypes.c_char * 4),
        ("element_count", ctypes.c_int32),
        ("elements", ctypes.POINTER(ctypes.POINTER(Element))),
    ]


def main():
    module = ctypes.CDLL(sys.argv[1])
    thread_end = module["__threadend"]
    thread_end.argtypes = [ctypes.c_void_p]
    thread_end.restype = None
    free = module["__free"]
    free.argtypes = [ctypes.c_void_p]
    free.restype = None

    thread_number = ctypes.c_uint32(77)
    thread_data = Element(index=1, type=3)
    thread_id = Element(index=2, type=6, value=ctypes.addressof(thread_number))
    elements = (ctypes.POINTER(Element) * 2)(ctypes.pointer(thread_data), ctypes.pointer(thread_id))
    block = GenData(version=30400, size=24, tag=b"KRX", element_count=2, elements=elements)

    def request(name, text):
        reply = ctypes.c_void_p()
        result = module[name](ctypes.byref(block), text, ctypes.byref(reply))
        answer = ctypes.string_at(reply.value).decode() if reply.value else None
        free(reply)
        return result, answer

    module["__threadbegin"]()
    result, answer = request("What", b"")
    root = ElementTree.fromstring(answer)
    print("What", result, root.tag, root.get("milestone"))
    print("Reflect", *request("Reflect", b'<a b="1"/>'))
    print("Reflect", *request("Reflect", b"<a>"))
    result, answer = request("GetReports", b'<ReportData Name="none" StartIndex="0"/>')
    print("GetReports", result, "LastError=" + ElementTree.fromstring(answer).get("LastError"))
    result, answer = request("GetReportInstanceNames", b'<ReportInstanceNames Name="none"/>')
    print("GetReportInstanceNames", result, "LastError=" + ElementTree.fromstring(answer).get("LastError"))
    thread_end(thread_data.value)
    print("version", module["__handle_version"]())


main()
