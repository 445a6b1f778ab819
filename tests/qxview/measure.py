#!/usr/bin/env python3
"""Measures qxview for docs/performance.md: measure.py QXVIEW QXCTL [SECONDS]

Prints how long charts of 1,000,000 records take, how much memory the server needs, how much processor time 50 open pages with
20 live reports cost, how long a record takes from its append to the event that a page gets, and how long other requests take
while the first chart of 10,000,000 records is made.
"""
import http.client
import json
import pathlib
import selectors
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

RECORDS = 1_000_000
HUGE_RECORDS = 10_000_000
REPORTS = 20
PAGES = 50
APPENDS_PER_SECOND = 5  # of each report


class Server:
    def __init__(self, program, reports, state):
        self.process = subprocess.Popen([program, "--listen", "127.0.0.1:0", "--reports", reports, "--state", state],
                                        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        url, _, token = self.process.stdout.readline().strip().partition("/#token=")
        self.host = url.removeprefix("http://")
        connection = http.client.HTTPConnection(self.host)
        connection.request("POST", "/api/v1/session", "token=" + token)
        self.cookie = connection.getresponse().headers["Set-Cookie"].split(";")[0]

    def get(self, target):
        connection = http.client.HTTPConnection(self.host)
        begin = time.monotonic()
        connection.request("GET", "/api/v1/" + target, headers={"Cookie": self.cookie})
        body = connection.getresponse().read()
        return json.loads(body), time.monotonic() - begin

    def stream(self, query):
        connection = http.client.HTTPConnection(self.host)
        connection.request("GET", "/api/v1/events?" + query, headers={"Cookie": self.cookie})
        connection.sock.setblocking(False)
        return connection

    def peak_mib(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(status.split("VmHWM:")[1].split()[0]) / 1024

    def seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / 100

    def end(self):
        self.process.terminate()
        self.process.wait()


def qxctl(program, *arguments, **options):
    subprocess.run([program, *arguments], check=True, **options)


def fill(program, base, count):
    """Makes a report of records that are one second apart. Returns the time after the last one."""
    qxctl(program, "report", "create", base, "--slots", str(count))
    begin = 1_760_000_000
    for part in range(0, count, RECORDS):
        lines = "".join(time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(begin + i)) + f" cpu={i * 7 % 100}% load={i % 300 / 100}\n"
                        for i in range(part, min(part + RECORDS, count)))
        qxctl(program, "report", "append", base, "-", input=lines, text=True)
    return begin + count


def measure_chart(qxview, program, directory):
    reports = directory / "large"
    reports.mkdir()
    base = str(reports / "big")
    end = fill(program, base, RECORDS)
    for count in (1, 2):
        fields = "&field=cpu&field=load"[: 10 * count + count - 1]
        server = Server(qxview, str(reports), str(directory / "state"))
        first, first_s = server.get("chart?report=big" + fields)
        cpu = server.seconds()
        qxctl(program, "report", "append", base, time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(end)) + " cpu=1% load=1")
        again, again_s = server.get("chart?report=big" + fields)
        middle = (first["from"] + first["to"]) // 2
        _, zoom_s = server.get(f"chart?report=big{fields}&from={middle}&to={middle + 3_600_000}")
        assert len(first["columns"]) == 800 and again["cursor"] != first["cursor"]
        print(f"chart of {RECORDS} records, {count} field(s): first {first_s:.2f} s ({cpu:.2f} s of processor time), "
              f"after one more record {again_s * 1000:.0f} ms, an hour of it {zoom_s * 1000:.0f} ms, memory {server.peak_mib():.0f} MiB")
        server.end()


def measure_delay(qxview, program, directory):
    reports = directory / "huge"
    reports.mkdir()
    fill(program, str(reports / "big"), HUGE_RECORDS)
    fill(program, str(reports / "small"), 100)
    for name, target in (("first chart", "chart?report=big&field=cpu"), ("search", "records?report=big&filter=nothing")):
        server = Server(qxview, str(reports), str(directory / "state"))
        taken = []
        large = threading.Thread(target=lambda: taken.append(server.get(target)[1]))
        large.start()
        delays = {}
        while large.is_alive():
            for other in ("findings", "overview", "records?report=small", "chart?report=small&field=cpu", "records?report=big&newest=10"):
                delays.setdefault(other, []).append(server.get(other)[1] * 1000)
        large.join()
        print(f"{name} of {HUGE_RECORDS} records: {taken[0]:.2f} s, memory {server.peak_mib():.0f} MiB; others meanwhile, longest of "
              f"{len(delays['overview'])}: " + ", ".join(f"{other} {max(some):.0f} ms" for other, some in delays.items()))
        server.end()


def measure_live(qxview, program, directory, seconds):
    reports = directory / "live"
    reports.mkdir()
    names = [f"report{i}" for i in range(REPORTS)]
    writers = []
    for name in names:
        qxctl(program, "report", "create", str(reports / name), "--slots", "10000")
        qxctl(program, "report", "append", str(reports / name), "2026-01-31 10:20:30 t=0")
        writers.append(subprocess.Popen([program, "report", "append", str(reports / name), "-"], stdin=subprocess.PIPE, text=True))
    server = Server(qxview, str(reports), str(directory / "state"))
    selector = selectors.DefaultSelector()
    for page in range(PAGES):
        name = names[page % REPORTS]
        cursor, _ = server.get("records?newest=1&report=" + name)
        query = f"view=report&report={name}&after={urllib.parse.quote(cursor['cursor'])}" if page % 5 else "view=overview"
        connection = server.stream(query)
        selector.register(connection.sock, selectors.EVENT_READ, connection)
    time.sleep(2)
    delays = []
    begin, cpu = time.monotonic(), server.seconds()
    appended = 0
    while time.monotonic() - begin < seconds:
        if appended < (time.monotonic() - begin) * APPENDS_PER_SECOND * REPORTS:
            writer = writers[appended % REPORTS]
            writer.stdin.write(f"{time.strftime('%Y-%m-%d %H:%M:%S')} cpu={appended % 100}% t={time.monotonic():.6f}\n")
            writer.stdin.flush()
            appended += 1
        for key, _ in selector.select(0.002):
            text = key.data.sock.recv(1 << 20).decode("utf-8", "replace")
            now = time.monotonic()
            delays += [now - float(part.split("\"")[0].split(",")[0]) for part in text.split(" t=")[1:]
                       if "\"" in part and float(part.split("\"")[0]) > 0]
    used = (server.seconds() - cpu) / (time.monotonic() - begin)
    delays.sort()
    print(f"{PAGES} pages, {REPORTS} reports with {APPENDS_PER_SECOND} records a second each: {used:.2f} cores, memory {server.peak_mib():.0f} MiB")
    print(f"append to event: {len(delays)} events, median {delays[len(delays) // 2] * 1000:.0f} ms, "
          f"p99 {delays[len(delays) * 99 // 100] * 1000:.0f} ms, longest {delays[-1] * 1000:.0f} ms")
    for writer in writers:
        writer.stdin.close()
        writer.wait()
    server.end()


def main():
    qxview, program = sys.argv[1:3]
    seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 20
    with tempfile.TemporaryDirectory() as name:
        measure_chart(qxview, program, pathlib.Path(name))
        measure_live(qxview, program, pathlib.Path(name), seconds)
        measure_delay(qxview, program, pathlib.Path(name))


if __name__ == "__main__":
    main()
