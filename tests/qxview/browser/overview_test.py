"""Tests the overview: the worst reports first, search, order, and addresses that restore the view."""
import datetime
import unittest

from support import BrowserTest, now


class OverviewTest(BrowserTest):
    @classmethod
    def setUpClass(cls):
        cls.filled = False

    def setUp(self):
        super().setUp()
        site = self.site
        if not self.filled:
            site.fill("overview/alpha", 30, lambda i: f"cpu={i}%")
            site.fill("overview/beta", 30, lambda i: f"queue={30 - i}")
            site.fill("overview/silent", 60, lambda i: f"cpu={i}%", step=10, end=now() - datetime.timedelta(hours=3))
            site.age("overview/silent", datetime.timedelta(hours=3))
            site.fill("overview/broken", 5, lambda i: f"cpu={i}%")
            site.damage("overview/broken")
            type(self).filled = True

    def names(self):
        return self.texts(".reports tbody .report-link")

    def open_overview(self, query="?search=overview/"):
        self.open(f"#/{query}")
        self.wait(self.names, "the rows")

    def test_worst_reports_come_first(self):
        self.open_overview()
        self.wait(lambda: self.names()[:1] == ["overview/broken"], "the damaged report in the first row")
        names = self.names()
        self.assertLess(names.index("overview/silent"), names.index("overview/alpha"))
        self.assertIn("Error", self.text(".reports tbody tr .severity"))
        self.assertIn("silent for 3 h", self.text(".reports .silent"))

    def test_row_shows_newest_value_and_trend(self):
        self.open_overview("?search=overview/alpha")
        self.assertEqual(self.text(".column-value .value"), "29%")
        points = self.one(".spark-line").get_attribute("points").split()
        self.assertEqual(len(points), 24)
        self.assertGreater(float(points[0].split(",")[1]), float(points[-1].split(",")[1]))  # the line rises

    def test_search_narrows_and_is_in_the_address(self):
        self.open_overview()
        self.one("#search").clear()
        self.one("#search").send_keys("OVERVIEW/B")
        self.wait(lambda: sorted(self.names()) == ["overview/beta", "overview/broken"], "two rows")
        self.wait(lambda: "search=OVERVIEW" in self.address, "the search in the address")
        self.open(self.address.split("/", 3)[3])
        self.wait(lambda: sorted(self.names()) == ["overview/beta", "overview/broken"], "the restored view")
        self.assertEqual(self.one("#search").get_attribute("value"), "OVERVIEW/B")

    def test_column_sorts_and_sorts_the_other_way(self):
        self.open_overview()
        press = lambda: self.one('[data-sort="report"] button').click()
        press()
        ordered = ["overview/alpha", "overview/beta", "overview/broken", "overview/silent"]
        self.wait(lambda: self.names() == ordered, "the order of names")
        self.assertEqual(self.one('[data-sort="report"]').get_attribute("aria-sort"), "ascending")
        press()
        self.wait(lambda: self.names() == ordered[::-1], "the reversed order")
        self.assertIn("sort=-report", self.address)

    def test_state_button_shows_only_that_state(self):
        self.open_overview()
        self.one(".chip.severity-error").click()
        self.wait(lambda: self.names() == ["overview/broken"], "the damaged report alone")
        self.assertIn("show=error", self.address)

    def test_search_without_match_says_so_and_leads_back(self):
        self.open("#/?search=no-such-report")
        self.wait(lambda: "No report matches" in self.text(".place"), "the empty state")
        self.button("Show all reports").click()
        self.wait(self.names, "all rows")

    def test_new_report_appears_by_itself(self):
        self.open_overview()
        self.site.fill("overview/new", 3, lambda i: f"cpu={i}%")
        self.wait(lambda: "overview/new" in self.names(), "the new report")


if __name__ == "__main__":
    unittest.main()
