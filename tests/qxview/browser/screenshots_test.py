"""Makes the pictures of the book. With QX_SCREENSHOTS=FOLDER they are stored there; otherwise they are only made and checked."""
import base64
import datetime
import math
import os
import pathlib
import random
import unittest

from support import BrowserTest, Site, now, shared

BYTES_MAX = 90 * 1024


class BookSite(Site):
    """Makes reports like those of an operator with three hosts."""

    def __init__(self):
        super().__init__()
        chance = random.Random(7)
        wave = lambda i, long, high: high * (1 + math.sin(i / long)) / 2
        machine = lambda i: (f"cpu={5 + wave(i, 150, 50) + chance.random() * 8 + (35 if i % 500 == 320 else 0):.1f}% "
                             f"load={0.3 + wave(i, 220, 2.4):.2f} free={6200000 + int(wave(i, 400, 1900000))} kB")
        for host in ("vienna", "graz", "linz"):
            self.fill(f"{host}/machine", 900, machine, slots=3600, end=now() - datetime.timedelta(minutes=20))
            self.fill(f"{host}/machine", 840, machine)
        self.fill("vienna/requests", 400, lambda i: f"requests={int(80 + wave(i, 30, 90))} failed={int(chance.random() * 4)}", slots=500)
        self.fill("graz/queue", 300, lambda i: f"waiting={int(wave(i, 40, 400))}", step=4, end=now() - datetime.timedelta(hours=2))
        self.fill("linz/disk", 200, lambda i: f"used={60 + i / 10:.1f}% free={400 - i} GB", step=6)
        for i in range(40):
            moment = now() - datetime.timedelta(seconds=60 + 40 * (40 - i))
            self.trace(["report vienna/machine opened", "1000 records sent, 65536 bytes", "request of client 10.1.4.7"][i % 3], moment)
        self.trace("WARNING: the ring wrapped while it was read, 12 records lost", now() - datetime.timedelta(seconds=50))
        self.trace("ERROR: cannot open 'graz/queue.dat': Permission denied", now() - datetime.timedelta(seconds=30))
        self.age("graz/queue", datetime.timedelta(hours=2))
        self.fill("linz/backup", 20, lambda i: f"copied={i} GB", slots=50)
        self.damage("linz/backup")


class ScreenshotsTest(BrowserTest):
    def shared_site(self):
        return shared("book", BookSite, Site.close)

    def setUp(self):
        super().setUp()
        self.media(prefers_reduced_motion="reduce")

    def picture(self, name):
        picture = base64.b64decode(self.command("Page.captureScreenshot", format="webp", quality=85)["data"])
        self.assertLess(len(picture), BYTES_MAX, name)
        colors = self.script("return new Set([...document.querySelectorAll('*')].map((node) => getComputedStyle(node).color)).size")
        self.assertGreater(colors, 4, f"{name} is blank")
        folder = os.environ.get("QX_SCREENSHOTS")
        if folder:
            (pathlib.Path(folder) / f"qxview-{name}.webp").write_bytes(picture)

    def test_overview(self):
        self.screen(1180, 520)
        self.open("#/")
        self.wait(lambda: len(self.all(".reports tbody tr")) >= 6, "the reports")
        self.wait_live()
        self.picture("overview")

    def test_report(self):
        self.screen(1180, 860)
        self.open_report("vienna/machine", "?field=cpu&field=load")
        self.wait(lambda: self.all(".chart canvas") and self.all(".log tr"), "the chart")
        self.picture("report")

    def test_report_in_the_dark(self):
        self.media(prefers_color_scheme="dark", prefers_reduced_motion="reduce")
        self.screen(1180, 860)
        at = int((now() - datetime.timedelta(minutes=6)).timestamp() * 1000)
        self.open_report("vienna/machine", f"?field=cpu&field=free&last=3600&at={at}")
        self.wait(lambda: self.all(".plot-cursor:not([hidden])"), "the cursor")
        self.picture("report-dark")

    def test_traces(self):
        self.screen(1180, 520)
        self.open("#/traces")
        self.wait(lambda: "Permission denied" in self.text(".log"), "the traces")
        self.wait_live()
        self.picture("traces")

    def test_health(self):
        self.screen(1180, 620)
        self.open("#/health")
        self.wait(lambda: self.all(".finding"), "the findings")
        self.wait_live()
        self.picture("health")

    def test_small_screen(self):
        self.screen(390, 780)
        self.open("#/")
        self.wait(lambda: len(self.all(".reports tbody tr")) >= 6, "the reports")
        self.wait_live()
        self.picture("small")


if __name__ == "__main__":
    unittest.main()
