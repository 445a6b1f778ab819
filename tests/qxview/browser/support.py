"""Helpers of the browser tests: a server with reports and traces of its own, and one Chromium for all tests.

The programs come from the environment, which script/test sets: QX_VIEW (the program), and LD_LIBRARY_PATH for the
library of sdk/python/qxreport.py.
"""
import atexit
import datetime
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

ROOT = pathlib.Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "sdk/python"))
import qxreport  # noqa: E402  (found in the folder above)

WEB = ROOT / "tools/qxview/web"
MINUTE = datetime.timedelta(minutes=1)
START_SECONDS = 20
HIGHEST_INDEX_OFFSET = 16  # in the header of an index file


def utc_text(moment):
    """2026-01-31 10:20:30.123 of a datetime in UTC"""
    return moment.strftime("%Y-%m-%d %H:%M:%S.") + f"{moment.microsecond // 1000:03}"


def now():
    return datetime.datetime.now(datetime.timezone.utc)


def viewer_offset():
    """The difference between the viewer's clock and UTC, which the server uses.

    Half an hour off, and never near midnight: the pages show the day of a record that is not of today, so the hour at which the
    tests run would change what they see. QX_VIEWER_CLOCK=23:59 lets the viewer's clock show that time at the start instead.
    """
    clock = os.environ.get("QX_VIEWER_CLOCK")
    if clock is None:
        offset = datetime.timedelta(hours=5, minutes=30)
        is_near_midnight = not 2 <= (now() + offset).hour < 22
        return offset - datetime.timedelta(hours=12) if is_near_midnight else offset
    hour, minute = clock.split(":")
    started = now().replace(second=0, microsecond=0)
    offset = started.replace(hour=int(hour), minute=int(minute)) - started
    return offset if offset >= -12 * 60 * MINUTE else offset + datetime.timedelta(days=1)


VIEWER_OFFSET = viewer_offset()


def zone_name(offset):
    """GMT+05:30"""
    minutes = offset // MINUTE
    return f"GMT{'-' if minutes < 0 else '+'}{abs(minutes) // 60:02}:{abs(minutes) % 60:02}"


def local_text(moment):
    """A time as the pages show it in a list: with its day, unless that is today."""
    local = utc_text(moment + VIEWER_OFFSET)
    is_today = local[:10] == utc_text(now() + VIEWER_OFFSET)[:10]
    return local[11:] if is_today else local


def stamped(moment, text):
    """A record with a stamp that names its zone."""
    return f"{utc_text(moment)}Z {text}"


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Site:
    """A directory of reports, a directory of traces, and the server that shows them."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="qxview-browser-"))
        self.reports = self.folder / "Reports"
        self.traces = self.folder / "traces"
        for folder in (self.reports, self.traces):
            folder.mkdir()
        self.port = free_port()
        self.server = None
        self.writers = {}
        self.start()

    @property
    def base(self):
        return f"http://127.0.0.1:{self.port}"

    def start(self):
        """Starts the server; its address with a new token is in self.address."""
        command = [os.environ["QX_VIEW"], "--listen", f"127.0.0.1:{self.port}", "--reports", str(self.reports),
                   "--state", str(self.folder / "state")]
        environment = dict(os.environ, TZ="UTC", QX_LOG_RINGBUF_DIR=str(self.traces))
        self.output = open(self.folder / "output", "w+", encoding="utf-8")
        self.server = subprocess.Popen(command, env=environment, stdout=self.output, stderr=subprocess.STDOUT)
        self.address = self.printed_address(1)

    def renew_address(self):
        """Requests another token; its address is in self.address."""
        printed = len(self.printed())
        self.server.send_signal(signal.SIGHUP)
        self.address = self.printed_address(printed + 1)

    def printed(self):
        return re.findall(r"http://\S+#token=\S+", (self.folder / "output").read_text(encoding="utf-8"))

    def printed_address(self, count):
        """The address number `count` of those that the server has printed since its start."""
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end and self.server.poll() is None:
            found = self.printed()
            if len(found) >= count:
                return found[-1]
            time.sleep(0.02)
        raise AssertionError(f"qxview printed no address: {(self.folder / 'output').read_text(encoding='utf-8')}")

    def stop(self):
        self.server.terminate()
        self.server.wait(10)
        self.output.close()

    def close(self):
        self.stop()
        for writer in self.writers.values():
            writer.close()
        shutil.rmtree(self.folder)

    def writer(self, name, slots=1000):
        if name not in self.writers:
            path = self.reports / name
            path.parent.mkdir(parents=True, exist_ok=True)
            self.writers[name] = qxreport.Writer(str(path), slots)
        return self.writers[name]

    def append(self, name, *texts):
        self.writer(name).append_many(texts)

    def fill(self, name, count, text, slots=1000, step=1.0, end=None):
        """Appends `count` records, `step` seconds apart, the last one at `end` (default: now). text(i) is without a stamp."""
        end = end or now()
        moments = [end - datetime.timedelta(seconds=step * (count - 1 - i)) for i in range(count)]
        self.writer(name, slots).append_many([stamped(moment, text(i)) for i, moment in enumerate(moments)])
        return moments

    def age(self, name, duration):
        """Sets the time of a report's files back, as if nobody had written it for this time."""
        old = (now() - duration).timestamp()
        for suffix in (".dat", ".ind"):
            os.utime(self.reports / (name + suffix), (old, old))

    def damage(self, name):
        """Damages the index file: the header counts more slots in use than there are."""
        with open(self.reports / (name + ".ind"), "r+b") as index:
            index.seek(HIGHEST_INDEX_OFFSET)
            index.write(b"\xff\xff\xff\x00")

    def trace(self, text, moment=None, name="log.qxremconxfer"):
        """Appends one entry to a log of traces."""
        moment = moment or now()
        with open(self.traces / name, "a", encoding="utf-8") as log:
            log.write(f"{utc_text(moment)} [0A1B2C3D] QXRemConXfer  {text}\n")


def new_browser():
    options = Options()
    options.binary_location = shutil.which("chromium")
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
                     "--force-color-profile=srgb", "--window-size=1360,900"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    service = Service(shutil.which("chromedriver"))
    driver = webdriver.Chrome(service=service, options=options)
    driver.set_page_load_timeout(START_SECONDS)
    driver.set_script_timeout(START_SECONDS)
    return driver


_shared = {}


def shared(name, create, close):
    """One object for all tests of this process."""
    if name not in _shared:
        _shared[name] = create()
        atexit.register(close, _shared[name])
    return _shared[name]


class BrowserTest(unittest.TestCase):
    """A test with the shared server and the shared browser, logged in. Errors in the console fail each test."""

    def setUp(self):
        self.site = self.shared_site()
        self.driver = shared("driver", new_browser, lambda driver: driver.quit())
        self.expected_errors = []
        self.media()
        self.screen()
        self.command("Emulation.setTimezoneOverride", timezoneId=zone_name(VIEWER_OFFSET))
        self.log_in()
        self.console()

    def shared_site(self):
        return shared("site", Site, Site.close)

    def tearDown(self):
        unexpected = [line for line in self.console() if not any(re.search(known, line) for known in self.expected_errors)]
        self.driver.get("about:blank")
        self.assertEqual(unexpected, [], "errors in the console")

    def console(self):
        return [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]

    def expect_error(self, pattern):
        """A failed request is an error in the console, too."""
        self.expected_errors.append(pattern)

    # The browser

    def media(self, **features):
        values = {"prefers-color-scheme": "light", "prefers-reduced-motion": "no-preference"}
        values |= {name.replace("_", "-"): value for name, value in features.items()}
        self.command("Emulation.setEmulatedMedia", features=[{"name": name, "value": value} for name, value in values.items()])

    def screen(self, width=1360, height=900):
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def command(self, name, **parameters):
        return self.driver.execute_cdp_cmd(name, parameters)

    def log_in(self):
        cookies = self.command("Network.getCookies", urls=[self.site.base + "/"])["cookies"]
        if not any(cookie["name"].endswith(f"-{self.site.port}") for cookie in cookies):
            self.site.renew_address()
            self.driver.get(self.site.address)
            self.wait(lambda: "Overview" in self.driver.title, "the overview after the login")

    def restart(self):
        self.site.stop()
        self.site.start()

    def open(self, fragment):
        """Loads the page of a view, as if from a bookmark."""
        self.driver.get("about:blank")
        self.driver.get(f"{self.site.base}/{fragment}")
        self.wait(lambda: not self.all(".state-loading") and self.all("h1"), f"the view {fragment}")

    def open_report(self, name, query=""):
        self.open(f"#/report/{name}{query}")
        self.wait(lambda: self.all(".log-card"), f"the report {name}")
        self.wait_live()

    def wait_live(self):
        self.wait(lambda: self.text(".connection") in ("Live", "Paused"), "the live events")

    @property
    def address(self):
        return self.driver.current_url

    # What is on the page

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def one(self, selector):
        found = self.all(selector)
        self.assertTrue(found, f"no element {selector}")
        return found[0]

    def text(self, selector):
        return self.driver.execute_script("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def texts(self, selector):
        return self.driver.execute_script("return [...document.querySelectorAll(arguments[0])].map((node) => node.innerText)", selector)

    def button(self, text):
        return next(node for node in self.all("button, a.button") if text in node.text)

    def script(self, code, *arguments):
        return self.driver.execute_script(code, *arguments)

    def wait(self, condition, what, seconds=10.0):
        """Waits until condition() is true, and returns its value."""
        end = time.monotonic() + seconds
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() > end:
                shown = self.script("return document.body?.innerText ?? ''")
                self.fail(f"not within {seconds} s: {what}; the page shows:\n{shown[:2000]}")
            time.sleep(0.02)
