"""Tests live events: delay, wrap, restart of the server, hidden pages, many tabs."""
import datetime
import time
import unittest

from support import BrowserTest, Site, now, stamped, utc_text

WATCH = """
window.seen = {};
window.watching?.disconnect();
window.watching = new MutationObserver(() => {
  for (const row of document.querySelectorAll('[aria-label="Records"] tbody tr')) {
    const [, mark] = /mark=(\\d+)/.exec(row.textContent) ?? [];
    if (mark !== undefined) window.seen[mark] ??= Date.now();
  }
});
window.watching.observe(document.body, { childList: true, subtree: true });
"""
LOCKS = "return navigator.locks.query().then(({ held }) => held.map(({ name }) => name))"


class LiveTest(BrowserTest):
    def open_filled(self, name, count=20, **options):
        self.site.fill(name, count, lambda i: f"cpu={i}%", **options)
        self.open_report(name)
        self.wait(self.rows, "records")

    def rows(self):
        return self.texts('[aria-label="Records"] .log tbody tr')

    def append(self, name, text):
        self.site.append(name, stamped(now(), text))

    def test_record_is_seen_within_a_second_of_its_append(self):
        self.open_filled("live/delay")
        self.script(WATCH)
        appended = {}
        for mark in range(20):
            appended[str(mark)] = time.time()
            self.append("live/delay", f"cpu={mark}% mark={mark}")
            time.sleep(0.13)
        seen = self.wait(lambda: (lambda found: found if len(found) == 20 else None)(self.script("return window.seen")), "all records")
        delays = sorted(seen[mark] / 1000 - appended[mark] for mark in appended)
        self.assertLess(delays[-1], 1.0, f"delays in seconds: {delays}")
        self.wait(lambda: "19" in self.text(".field-chip"), "the newest value")

    def test_chart_grows_with_the_records(self):
        self.open_filled("live/chart")
        self.append("live/chart", "cpu=77%")
        self.wait(lambda: "cpu 77 %" in self.one(".chart").get_attribute("aria-valuetext").replace("\u00a0", " "), "the value in the chart")

    def test_wrapping_ring_is_followed_without_gap_or_repeat(self):
        self.open_filled("live/ring", 50, slots=50)
        for start in range(0, 120, 10):
            self.site.append("live/ring", *[stamped(now(), f"mark={i}") for i in range(start, start + 10)])
            self.wait(lambda: f"mark={start + 9}" in self.rows()[0], "the newest record")
        marks = [row.split("mark=")[1] for row in self.rows() if "mark=" in row]
        self.assertEqual(marks, [str(i) for i in range(119, -1, -1)])
        self.assertIn("50 of 50 slots", self.text(".head-facts"))

    def test_overwritten_records_are_reported(self):
        self.open_filled("live/lost", 50, slots=50)
        self.hide(True)
        self.site.append("live/lost", *[stamped(now(), f"mark={i}") for i in range(500)])
        self.hide(False)
        self.wait(lambda: self.rows() and "mark=499" in self.rows()[0], "the newest record")
        self.wait(lambda: len(self.rows()) == 50, "only records that the ring has")
        self.assertIn("450 records overwritten before they were read", self.text('[aria-label="Records"] .count'))

    def test_restart_of_the_server_is_survived(self):
        self.expect_error("ERR_|Failed to load")
        self.open_filled("live/restart")
        self.site.stop()
        self.wait(lambda: self.text(".connection") == "Connection lost", "the lost connection")
        self.wait(lambda: "What you see is from" in self.text(".banner"), "the banner")
        self.append("live/restart", "cpu=5% while down")
        self.site.start()
        self.wait(lambda: self.text(".connection") == "Live", "the connection again", 20)
        self.wait(lambda: "while down" in self.rows()[0], "the record from the meantime")
        self.assertEqual(self.text(".banner"), "")
        self.append("live/restart", "cpu=6% afterwards")
        self.wait(lambda: "afterwards" in self.rows()[0], "a later record")
        self.assertEqual(len([row for row in self.rows() if "while down" in row]), 1)

    def hide(self, hidden):
        self.script("""Object.defineProperty(document, 'hidden', { value: arguments[0], configurable: true });
                       document.dispatchEvent(new Event('visibilitychange'));""", hidden)

    def test_hidden_page_closes_its_stream_and_catches_up(self):
        self.open_filled("live/hidden")
        self.assertEqual(len(self.script(LOCKS)), 1)
        self.hide(True)
        self.wait(lambda: self.text(".connection") == "Waiting", "the waiting page")
        self.wait(lambda: self.script(LOCKS) == [], "no stream")
        self.append("live/hidden", "cpu=1% while hidden")
        time.sleep(0.5)
        self.assertNotIn("while hidden", self.rows()[0])
        self.hide(False)
        self.wait(lambda: "while hidden" in self.rows()[0], "the record from the meantime")
        self.wait_live()

    def test_seven_live_tabs_at_once(self):
        self.site.fill("live/tabs", 20, lambda i: f"cpu={i}%")
        first = self.driver.current_window_handle
        tabs = [first]
        try:
            for i in range(7):
                if i > 0:
                    self.driver.switch_to.new_window("window")
                    tabs.append(self.driver.current_window_handle)
                self.open_report("live/tabs")
                self.wait(self.rows, f"the records of tab {i + 1}")
            self.assertLessEqual(len(self.script(LOCKS)), 4)
            for round_number in range(2):
                self.append("live/tabs", f"cpu=3% round={round_number}")
                for tab in tabs:
                    self.driver.switch_to.window(tab)
                    self.wait(lambda: f"round={round_number}" in self.rows()[0], "the record in each tab", 3)
            for tab in tabs:
                self.driver.switch_to.window(tab)
                self.assertEqual(self.text(".connection"), "Live")
        finally:
            for tab in tabs[1:]:
                self.driver.switch_to.window(tab)
                self.driver.close()
            self.driver.switch_to.window(first)

    def test_trace_is_seen_live_with_level_and_filter(self):
        self.site.trace("quiet entry")
        self.open("#/traces")
        rows = lambda: self.texts(".log tbody tr")
        self.wait(lambda: any("quiet entry" in row for row in rows()), "the entry of the log")
        self.wait_live()
        self.site.trace("ERROR: cannot open 'x.dat'")
        self.wait(lambda: "cannot open" in rows()[0], "the new entry")
        self.assertTrue(self.all(".level-error .icon"))
        self.script("const select = document.querySelector('.level'); select.value = 'error'; select.dispatchEvent(new Event('change'));")
        self.wait(lambda: rows() and all("ERROR" in row for row in rows()), "errors only")
        self.assertIn("level=error", self.address)
        self.one('[aria-label="Filter traces"]').send_keys("nothing has this")
        self.wait(lambda: "No traces" in self.text(".place"), "the empty state")

    def test_more_than_a_thousand_traces_are_paged(self):
        start = now() - datetime.timedelta(hours=1)
        for i in range(2600):
            self.site.trace(f"paged {i}", start + datetime.timedelta(milliseconds=i), "log.paged")
        self.open("#/traces?filter=paged")
        self.wait_live()
        rows = lambda: self.texts(".log tbody tr .log-text")
        self.assertEqual(rows(), [f"paged {i}" for i in range(2599, 2099, -1)])
        for count in (1000, 2000, 2600):
            self.button("Show older").click()
            self.wait(lambda: len(rows()) == count, f"{count} rows")
        self.assertEqual(rows(), [f"paged {i}" for i in range(2599, -1, -1)])
        self.assertFalse(self.one(".log-end button").is_displayed())
        self.assertIn("rows=4000", self.address)
        self.site.trace("paged live", name="log.paged")
        self.wait(lambda: rows()[0] == "paged live", "the new entry")

    def test_list_of_traces_that_is_full_leads_to_older_ones(self):
        start = now() - datetime.timedelta(hours=2)
        with open(self.site.traces / "log.full", "a", encoding="utf-8") as log:
            for i in range(10500):
                log.write(f"{utc_text(start + datetime.timedelta(milliseconds=i))} [0A1B2C3D] QXRemConXfer  full {i}\n")
        self.open("#/traces?filter=full&rows=10000")
        self.wait(lambda: len(self.all(".log tbody tr")) == 10000, "as many rows as may be")
        self.button("Go to older").click()
        self.wait(lambda: "full 500" in self.text(".log tbody tr .log-text"), "the list goes on at its end")
        self.assertEqual(len(self.all(".log tbody tr")), 500)

    def test_paused_traces_hold_new_entries(self):
        self.site.trace("before the pause")
        self.open("#/traces")
        self.wait_live()
        self.button("Pause").click()
        self.wait(lambda: self.text(".connection") == "Paused", "the paused view")
        self.site.trace("while paused")
        self.wait(lambda: "1 new" in self.text(".pause"), "the count")
        self.assertNotIn("while paused", self.text(".log"))
        self.button("Resume").click()
        self.wait(lambda: "while paused" in self.text(".log"), "the new entry")


class EmptySiteTest(BrowserTest):
    def test_empty_directory_shows_how_to_begin(self):
        site = Site()
        try:
            self.driver.get(site.address)
            self.wait(lambda: "No report yet" in self.text(".place"), "the empty state")
            self.assertIn("qxctl report create", self.text(".place"))
            site.traces.rmdir()
            self.one('nav a[href="#/traces"]').click()
            self.wait(lambda: "The trace directory has no entries" in self.text(".place"), "the empty state of traces")
            self.driver.back()
            site.fill("first", 3, lambda i: f"cpu={i}%")
            self.wait(lambda: self.texts(".report-link") == ["first"], "the first report")
        finally:
            self.driver.get("about:blank")
            site.close()


if __name__ == "__main__":
    unittest.main()
