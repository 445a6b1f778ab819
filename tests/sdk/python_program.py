"""The Python module: prints what it gets. python_program.py LIBRARY PATH"""
import ctypes
import pathlib
import sys

real = ctypes.CDLL
ctypes.CDLL = lambda name: real(sys.argv[1] if name == "libqxreport.so.0" else name)
sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "sdk/python"))
sys.dont_write_bytecode = True
import qxreport  # noqa: E402

path = sys.argv[2]


def refused(call):
    try:
        call()
    except qxreport.ReportError as error:
        return f"{error.code.name} {error.record} {error}".replace(path, "PATH")
    return "accepted"


with qxreport.Writer(path, 5) as writer:
    writer.append("one")
    writer.append_many(["zw\u00f6lf", b"\xe4", ""])
    print(refused(lambda: writer.append_many(["good", "a\nb"])))
    print(refused(lambda: writer.append("x" * 2000000)))
    print(refused(lambda: qxreport.Writer(path, 5)))
print(refused(lambda: writer.append("closed")))
print(refused(lambda: qxreport.Writer(path + "/none/r", 5)))
print(refused(lambda: qxreport.Reader(path + "none")))
with qxreport.Reader(path) as reader:
    print(reader.read().text)
    cursor = reader.cursor
with qxreport.Reader(path, cursor) as reader:
    for record in reader:
        print(record.data, record.state.name, record.event.name)
    print(reader.read(0.01))
