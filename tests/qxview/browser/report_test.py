"""Tests the view of a report: fields, zoom, cursor, filter, pause, download, and an address that restores the view."""
import datetime
import math
import re
import unittest
import urllib.request

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys
from support import VIEWER_OFFSET, BrowserTest, local_text, now, utc_text

RECORDS = 600


def numbers(i):
    return f"cpu={50 + 40 * math.sin(i / 30):.1f}% load={1 + i % 7 / 10:.2f} free={7000000 + i * 100} kB state=ok"


class ReportTest(BrowserTest):
    fingers = {}  # that are on the chart

    @classmethod
    def setUpClass(cls):
        cls.moments = None

    def setUp(self):
        super().setUp()
        if self.moments is None:
            first = self.site.fill("chart/machine", RECORDS // 2, numbers, end=now() - datetime.timedelta(minutes=10))
            second = self.site.fill("chart/machine", RECORDS // 2, numbers)
            type(self).moments = first + second
            for moment in self.moments[::50]:
                self.site.trace(f"step at {utc_text(moment)}", moment)
            (self.site.reports / "chart/machine.names").write_text(
                "[Quaxel Report Instances]\nVersion=1\nName=chart/machine\n\n[Names]\n1=user time\n2=disks <I/O>\n", encoding="utf-8")

    def rows(self):
        return self.texts('[aria-label="Records"] .log tbody tr')

    def chart(self):
        return self.one(".chart")

    def chip(self, field):
        return next(node for node in self.all(".field-chip") if node.find_element("css selector", ".field-name").text == field)

    def slider(self):
        return self.chart().get_attribute("aria-valuetext")

    def span(self):
        """The limits of the chart, [from, to], in milliseconds."""
        return [int(self.chart().get_attribute(name)) for name in ("aria-valuemin", "aria-valuemax")]

    def open_machine(self, query=""):
        self.open_report("chart/machine", query)
        self.wait(lambda: self.all(".chart canvas") and self.rows(), "chart and records")

    def drag(self, begin, end, *keys):
        """Drags over the chart between two shares of its width."""
        width = self.chart().size["width"]
        chain = ActionChains(self.driver)
        for key in keys:
            chain.key_down(key)
        chain.move_to_element_with_offset(self.chart(), int((begin - 0.5) * width), 0).click_and_hold()
        chain.move_to_element_with_offset(self.chart(), int((end - 0.5) * width), 0).release()
        for key in keys:
            chain.key_up(key)
        chain.perform()

    def test_fields_are_chosen_by_name_several_at_once(self):
        self.open_machine()
        pressed = lambda: [node.text.split()[0] for node in self.all('.field-chip[aria-pressed="true"]')]
        self.assertEqual(pressed(), ["cpu"])
        self.chip("load").click()
        self.chip("free").click()
        self.wait(lambda: pressed() == ["cpu", "load", "free"], "three chosen fields")
        self.wait(lambda: len(self.all(".plot")) == 3, "a plot for each unit and size")
        self.assertEqual(re.findall(r"field=(\w+)", self.address), ["cpu", "load", "free"])
        self.assertEqual(self.texts(".plot-unit"), ["%"])
        self.chip("cpu").click()
        self.wait(lambda: pressed() == ["load", "free"], "two chosen fields")

    def test_drag_zooms_and_back_restores_all(self):
        self.open_machine()
        before = self.span()
        self.drag(0.6, 0.8)
        self.wait(lambda: "from=" in self.address, "the span in the address")
        self.wait(lambda: self.span()[1] - self.span()[0] < 0.3 * (before[1] - before[0]), "a shorter span")
        self.wait(lambda: self.text(".connection") == "Paused", "the paused view")
        self.driver.back()
        self.wait(lambda: self.span()[0] == before[0], "the whole span again")

    def test_zoom_asks_for_finer_columns(self):
        self.site.fill("chart/dense", 20000, lambda i: f"peak={1000 if i == 15000 else i % 10}", slots=20000, step=0.1)
        self.open_report("chart/dense", "?field=peak")
        self.wait(lambda: self.all(".chart canvas"), "the chart")
        self.chart().send_keys(Keys.HOME)
        self.wait(lambda: "to 9)" in self.slider(), "a column of many records")  # lowest and highest of a column
        self.assertIn("(0 to 9)", self.slider())
        begin, end = self.span()
        middle = (begin + end) // 2
        self.open_report("chart/dense", f"?field=peak&from={middle}&to={middle + 5000}")
        self.wait(lambda: self.all(".chart canvas"), "the chart")
        self.chart().send_keys(Keys.HOME)
        self.wait(lambda: re.search(r"peak \d$", self.slider()), "one record in a column")

    def test_shift_drag_pans(self):
        begin = int(self.moments[320].timestamp() * 1000)
        self.open_machine(f"?from={begin}&to={begin + 60000}")
        self.drag(0.7, 0.3, Keys.SHIFT)
        self.wait(lambda: self.span()[0] > begin + 15000, "a later span")
        self.assertAlmostEqual(self.span()[1] - self.span()[0], 60000, delta=2)

    def touch(self, *steps):
        """Moves fingers on the chart: each step has the places of the fingers by their numbers, as shares of its width and height."""
        box = self.script("const box = arguments[0].getBoundingClientRect(); return [box.left, box.top, box.width, box.height]", self.chart())
        for step in steps:
            before, self.fingers = self.fingers, {i: {"id": i, "x": box[0] + x * box[2], "y": box[1] + y * box[3]} for i, (x, y) in step.items()}
            lifted = [point for i, point in before.items() if i not in step]
            if lifted:
                self.command("Input.dispatchTouchEvent", type="touchEnd", touchPoints=lifted if step else [])
            else:
                kind = "touchMove" if len(step) == len(before) else "touchStart"
                self.command("Input.dispatchTouchEvent", type=kind, touchPoints=list(self.fingers.values()))

    def open_minute(self):
        """Opens the report with a span of 60 seconds, and returns the start of the span."""
        begin = int(self.moments[320].timestamp() * 1000)
        self.open_machine(f"?from={begin}&to={begin + 60000}")
        return begin

    def test_one_finger_pans(self):
        begin = self.open_minute()
        self.touch(*({0: (x, 0.5)} for x in (0.7, 0.6, 0.5, 0.4, 0.3)), {})
        self.wait(lambda: self.span()[0] > begin + 15000, "a later span")
        self.assertAlmostEqual(self.span()[1] - self.span()[0], 60000, delta=2)
        self.assertIn(f"from={self.span()[0]}", self.address)

    def test_two_fingers_zoom(self):
        begin = self.open_minute()
        self.touch({0: (0.4, 0.5)}, *({0: (0.4 - by, 0.5), 1: (0.6 + by, 0.5)} for by in (0, 0.1, 0.2)), {1: (0.8, 0.5)})
        self.wait(lambda: self.span()[1] - self.span()[0] < 25000, "a third of the span")
        zoomed = self.span()
        self.assertGreater(zoomed[0], begin)
        self.touch({1: (0.6, 0.5)}, {1: (0.5, 0.5)}, {})
        self.assertEqual(self.span(), zoomed, "the other finger moves nothing")
        self.touch(*({0: (x, 0.5)} for x in (0.7, 0.5, 0.3)), {})
        self.wait(lambda: self.span()[0] > zoomed[0], "one finger pans again")

    def test_tap_pins_the_cursor_and_a_vertical_swipe_scrolls_the_page(self):
        begin = self.open_minute()
        self.touch({0: (0.5, 0.5)}, {})
        self.wait(lambda: "at=" in self.address, "the pinned cursor")
        self.screen(height=500)
        self.touch(*({0: (0.5, y)} for y in (0.9, 0.7, 0.5, 0.3, 0.1)), {})
        self.wait(lambda: self.script("return window.scrollY") > 0, "the scrolled page")
        self.assertEqual(self.span(), [begin, begin + 60000])

    def test_keys_move_the_cursor_zoom_and_pan(self):
        self.open_machine()
        whole = self.span()
        self.chart().send_keys(Keys.END)
        last = self.slider()
        self.chart().send_keys(Keys.ARROW_LEFT)
        self.wait(lambda: self.slider() != last, "the cursor one column earlier")
        self.assertIn("at=", self.address)
        self.chart().send_keys("+")
        self.wait(lambda: self.span()[1] - self.span()[0] < 0.6 * (whole[1] - whole[0]), "half of the span")
        zoomed = self.span()
        self.chart().send_keys(Keys.SHIFT + Keys.ARROW_LEFT)
        self.wait(lambda: self.span()[0] < zoomed[0], "an earlier span")
        self.chart().send_keys("0", Keys.ESCAPE)
        self.wait(lambda: "from=" not in self.address and "at=" not in self.address, "the address without span and cursor")

    def test_address_restores_exactly_this_view(self):
        begin = int(self.moments[400].timestamp() * 1000)
        query = f"?field=cpu&field=load&from={begin}&to={begin + 100000}&filter=load%3D1.3&at={begin + 50000}&utc=1&level=warning"
        self.open_machine(query)
        shown = lambda: [self.span(), self.rows(), self.texts('.field-chip[aria-pressed="true"]'), self.slider(), self.text(".zone"),
                         self.one(".filter").get_attribute("value"), self.one(".level").get_attribute("value")]
        self.wait(lambda: self.text("[aria-current=true] .log-time"), "the marked record")
        first = shown()
        self.assertEqual(first[0], [begin, begin + 100000])
        self.assertEqual(len(first[1]), 15)
        self.open_machine(self.address.split("chart/machine", 1)[1])
        self.wait(lambda: self.text("[aria-current=true] .log-time"), "the marked record")
        self.assertEqual(shown(), first)

    def test_gap_is_shown_as_a_gap(self):
        self.expect_error("willReadFrequently")  # by the script of this test
        self.open_machine("?field=cpu")
        middle = int((self.moments[299].timestamp() + self.moments[300].timestamp()) * 500)
        drawn = """
            const [time] = arguments;
            const chart = document.querySelector('.chart');
            const [from, to] = ['aria-valuemin', 'aria-valuemax'].map((name) => Number(chart.getAttribute(name)));
            const canvas = document.querySelectorAll('.chart canvas')[1];
            const line = getComputedStyle(chart).getPropertyValue('--series-1').trim();
            const [r, g, b] = [1, 3, 5].map((at) => parseInt(line.slice(at, at + 2), 16));
            const x = Math.round(56 + 4 + (canvas.width - 56 - 12 - 4) * (time - from) / (to - from));
            const count = (canvas) => {
              const pixels = canvas.getContext('2d').getImageData(x - 2, 0, 5, canvas.height).data;
              let found = 0;
              for (let i = 0; i < pixels.length; i += 4) {
                if (Math.abs(pixels[i] - r) + Math.abs(pixels[i + 1] - g) + Math.abs(pixels[i + 2] - b) < 60 && pixels[i + 3] > 60) ++found;
              }
              return found;
            };
            return [...document.querySelectorAll('.chart canvas')].reduce((sum, canvas) => sum + count(canvas), 0);"""
        self.wait(lambda: self.script(drawn, self.moments[400].timestamp() * 1000) > 0, "the line among the records")
        self.assertEqual(self.script(drawn, middle), 0, "the line crosses the gap")

    def test_one_cursor_over_chart_records_and_traces(self):
        self.open_machine("?field=cpu")
        row = self.all('[aria-label="Records"] .log tbody tr')[7]
        ActionChains(self.driver).move_to_element(row).perform()
        self.wait(lambda: self.all(".plot-cursor:not([hidden])"), "the cursor on the chart")
        time = row.find_element("css selector", ".log-time").text
        self.assertIn(time, self.text(".readout-time"))
        self.assertEqual(self.text('[aria-label="Records"] [aria-current=true] .log-time'), time)
        self.assertEqual(len(self.all('[aria-label="Traces"] [aria-current=true]')), 1)
        self.assertIn(re.search(r"cpu=([\d.]+)", row.text)[1].removesuffix(".0"), self.text(".readout dd"))
        # The other direction: the chart marks a record and a trace.
        width = self.chart().size["width"]
        ActionChains(self.driver).move_to_element_with_offset(self.chart(), int(0.3 * width), 0).perform()
        self.wait(lambda: self.text('[aria-label="Records"] [aria-current=true] .log-time') not in ("", time), "another marked record")

    def test_cursor_before_the_loaded_records_marks_none(self):
        self.open_machine(f"?at={int(self.moments[10].timestamp() * 1000)}")
        self.wait(lambda: self.all(".plot-cursor:not([hidden])"), "the cursor on the chart")
        self.assertEqual(self.all('[aria-label="Records"] [aria-current=true]'), [])
        self.button("Show older").click()
        self.wait(lambda: local_text(self.moments[10]) == self.text("[aria-current=true] .log-time"), "the marked record")

    def test_filter_shows_matching_records_and_marks_them(self):
        self.open_machine()
        self.one(".filter").send_keys("LOAD=1.3")
        self.wait(lambda: self.rows() and all("load=1.3" in row for row in self.rows()), "only matching records")
        self.assertEqual(self.text(".log mark"), "load=1.3")
        self.site.append("chart/machine", f"{utc_text(now())}Z cpu=1% load=1.31 new")
        self.wait(lambda: "load=1.31 new" in self.rows()[0], "a new matching record")
        self.one(".filter").clear()
        self.one(".filter").send_keys("no such text")
        self.wait(lambda: "contains the filter" in self.text('[aria-label="Records"]'), "the empty state")

    def test_pause_holds_new_records_and_resume_shows_them(self):
        self.site.fill("chart/pause", 20, numbers)
        self.open_report("chart/pause")
        self.wait(self.rows, "records")
        self.button("Pause").click()
        self.wait(lambda: self.text(".connection") == "Paused", "the paused view")
        held = self.rows()
        for i in range(3):
            self.site.append("chart/pause", f"{utc_text(now())}Z cpu={i}% while paused {i}")
        self.wait(lambda: "3 new records" in self.text(".pause"), "the count of new records")
        self.assertEqual(self.rows(), held)
        self.button("Resume").click()
        self.wait(lambda: self.rows() and "while paused 2" in self.rows()[0], "the new records")
        self.assertIn("while paused 0", self.rows()[2])

    def test_download_is_the_text_of_the_report(self):
        self.open_machine()
        link = self.button("Download text").get_attribute("href")
        cookie = "; ".join(f"{one['name']}={one['value']}" for one in self.driver.get_cookies())
        reply = urllib.request.urlopen(urllib.request.Request(link, headers={"Cookie": cookie}))
        self.assertEqual(reply.headers["Content-Type"], "text/plain; charset=utf-8")
        self.assertIn("attachment", reply.headers["Content-Disposition"])
        lines = reply.read().decode().splitlines()
        self.assertGreaterEqual(len(lines), RECORDS)
        self.assertEqual(lines[0], f"{utc_text(self.moments[0])}Z {numbers(0)}")
        # Pressing the link keeps the page.
        self.command("Page.setDownloadBehavior", behavior="allow", downloadPath=str(self.site.folder))
        self.button("Download text").click()
        self.wait(lambda: [path for path in self.site.folder.glob("*.txt") if path.read_text().count("\n") >= RECORDS], "the file")
        self.assertTrue(self.rows())

    def test_times_are_local_and_utc_on_demand(self):
        self.open_machine()
        newest = self.moments[-1].replace(tzinfo=None)
        local = utc_text(newest + VIEWER_OFFSET)[11:]
        self.wait(lambda: any(local in row for row in self.rows()), "the time in the viewer's zone")
        self.one(".zone").click()
        self.wait(lambda: any(utc_text(newest)[11:] in row for row in self.rows()), "the time in UTC")
        self.assertIn("utc=1", self.address)
        self.assertIn("UTC", self.text(".span-text"))

    def times(self):
        return self.texts('[aria-label="Records"] .log-time')

    def test_record_of_another_day_is_shown_with_its_day(self):
        self.site.fill("chart/days", 1, numbers, end=now() - datetime.timedelta(days=2))
        moments = self.site.fill("chart/days", 1, numbers)
        old = utc_text(moments[0] - datetime.timedelta(days=2) + VIEWER_OFFSET)
        self.open_report("chart/days")
        self.wait(lambda: len(self.rows()) == 2, "both records")
        self.assertEqual(self.times()[0], local_text(moments[0]))
        self.assertEqual(self.times()[1][:16], old[:16])

    def test_times_get_their_day_when_midnight_passes(self):
        moments = self.site.fill("chart/midnight", 2, numbers)[::-1]
        self.open_report("chart/midnight")
        self.wait(lambda: self.times() == [local_text(moment) for moment in moments], "the times of today")
        self.script("const now = Date.now; Date.now = () => now() + 86400000;")
        self.wait(lambda: self.times() == [utc_text(moment + VIEWER_OFFSET) for moment in moments], "the times with their day")

    def test_facts_and_names_are_shown(self):
        self.open_machine()
        facts = self.text('[aria-label="Facts of the ring"]')
        self.assertRegex(facts, r"Slots\s+1,000")
        self.assertIn("disks <I/O>", self.text('[aria-label="Names of instances"]'))

    def test_report_without_numbers_has_records_and_a_reason(self):
        self.site.fill("chart/words", 5, lambda i: "only words here")
        self.open_report("chart/words")
        self.wait(lambda: "No field with a number" in self.text(".chart-card"), "the reason")
        self.assertEqual(len(self.rows()), 5)

    def test_report_without_times_is_drawn_over_record_numbers(self):
        self.site.append("chart/untimed", *[f"value={i}" for i in range(50)])
        self.open_report("chart/untimed")
        self.wait(lambda: "records" in self.text(".span-text"), "record numbers")
        self.assertIn("value=49", self.rows()[0])
        self.site.append("chart/untimed", "value=50 live")
        self.wait(lambda: "value=50 live" in self.rows()[0], "a new record")

    def test_unknown_report_is_an_error_state_with_a_way_back(self):
        self.expect_error("404")
        self.open("#/report/no/such")
        self.wait(lambda: self.all(".state-failed"), "the error state")
        self.assertIn("qxctl explain", self.text(".state-failed"))
        self.button("Try again")
        self.assertIn("All reports", self.text(".back"))


if __name__ == "__main__":
    unittest.main()
