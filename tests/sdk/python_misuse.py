"""Mistakes with the Python module: prints each error, and whether anything was written. python_misuse.py LIBRARY PATH"""
import ctypes
import pathlib
import sys

real = ctypes.CDLL
ctypes.CDLL = lambda name: real(sys.argv[1] if name == "libqxreport.so.0" else name)
sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "sdk/python"))
sys.dont_write_bytecode = True
import qxreport  # noqa: E402

path = sys.argv[2]
directory = pathlib.Path(path).parent


def files():
    return {name: name.read_bytes() for name in directory.iterdir()}


def show(name, call):
    before = files()
    try:
        call()
        found = "accepted"
    except qxreport.ReportError as error:
        found = f"{error.code.name} {error.record} {error}".replace(path, "PATH")
    except TypeError as error:
        found = f"TypeError {error}"
    print(f"{name}: {found}{'' if files() == before else ' WRITTEN'}")


writer = qxreport.Writer(path, 5)
writer.append("one")
show("line feed", lambda: writer.append("a\nb"))
show("NUL", lambda: writer.append("a\0b"))
show("byte 0xFF", lambda: writer.append(b"\xff"))
show("too long", lambda: writer.append("x" * 1048574))
show("line feed in a batch", lambda: writer.append_many(["good", "a\nb"]))
show("text is a number", lambda: writer.append(5))
show("None as a text", lambda: writer.append(None))
show("number in a batch", lambda: writer.append_many(["good", 5]))
show("batch is a str", lambda: writer.append_many("text"))
show("batch is bytes", lambda: writer.append_many(b"text"))
show("second writer", lambda: qxreport.Writer(path, 5))
writer.close()
writer.close()
show("closed writer", lambda: writer.append("x"))
show("batch to a closed writer", lambda: writer.append_many(["x"]))
show("ring of 0", lambda: qxreport.Writer(path + "new", 0))
show("ring of -1", lambda: qxreport.Writer(path + "new", -1))
show("ring of 2^32", lambda: qxreport.Writer(path + "new", 2**32))
show("ring size is a str", lambda: qxreport.Writer(path + "new", "5"))
show("ring size is a float", lambda: qxreport.Writer(path + "new", 5.0))
show("NUL in the path", lambda: qxreport.Writer(path + "\0x", 5))
show("empty path", lambda: qxreport.Writer("", 5))
show("None as a path", lambda: qxreport.Writer(None, 5))
show("name that leads out", lambda: qxreport.path("../x"))
show("NUL in the name", lambda: qxreport.path("a\0b"))
show("no report", lambda: qxreport.Reader(path + "none"))
show("not a cursor", lambda: qxreport.Reader(path, "x"))
show("cursor beyond ASCII", lambda: qxreport.Reader(path, "\u00e4"))
show("NUL in the cursor", lambda: qxreport.Reader(path, "qx1 0 0\0"))
reader = qxreport.Reader(path)
reader.close()
reader.close()
show("closed reader", lambda: reader.read())
show("loop over a closed reader", lambda: list(reader))
show("cursor of a closed reader", lambda: reader.cursor)
