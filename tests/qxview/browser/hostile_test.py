"""Tests hostile text in records, names and traces: it must not run, and the pages must not turn text into HTML."""
import os
import re
import unittest
import urllib.parse

from support import WEB, BrowserTest, now, stamped

SCRIPT = "<img src=x onerror=window.hacked=1><script>window.hacked=1</script><svg onload=window.hacked=1>"
NAME = "hostile/<img src=x onerror=window.hacked=1>"
SINKS = re.compile(r"innerHTML|outerHTML|insertAdjacentHTML|document\.write|\beval\b|new Function|srcdoc|DOMParser|"
                   r"createContextualFragment|setHTMLUnsafe|javascript:|setAttribute\([\"']on|cssText|set(Timeout|Interval)\(\s*[\"'`]")
PAGES_BYTES_MAX = 400 * 1000


class HostileTest(BrowserTest):
    def assert_nothing_ran(self):
        self.assertIsNone(self.script("return window.hacked ?? null"))
        self.assertEqual(self.script("return document.querySelectorAll('main img, main script, main iframe, main b i').length"), 0)
        foreign = "return [...document.querySelectorAll('*')].filter((node) => [...node.attributes].some(({ name }) => name.startsWith('on'))).length"
        self.assertEqual(self.script(foreign), 0)

    def open_hostile(self):
        self.site.fill(NAME, 3, lambda i: f"cpu={i}% <b>bold</b>={i} {SCRIPT}")
        self.open_report(urllib.parse.quote(NAME))

    def test_script_in_a_report_name_is_text(self):
        self.site.fill(NAME, 3, lambda i: f"cpu={i}%")
        self.open("#/?search=hostile")
        self.wait(lambda: NAME in self.texts(".report-link"), "the name as text")
        self.assert_nothing_ran()
        self.one(".report-link").click()
        self.wait(lambda: self.text("h1") == NAME, "the name as the title")
        self.assert_nothing_ran()

    def test_script_in_a_record_is_text(self):
        self.open_hostile()
        self.wait(lambda: SCRIPT in self.text('[aria-label="Records"] .log'), "the record as text")
        self.site.append(NAME, stamped(now(), f"live {SCRIPT}"))
        self.wait(lambda: f"live {SCRIPT}" in self.text('[aria-label="Records"] .log'), "the live record as text")
        for chip in self.all('.field-chip[aria-pressed="false"]'):
            chip.click()
        self.one(".filter").send_keys("<IMG")
        self.wait(lambda: self.texts(".log mark"), "marked matches")
        self.assert_nothing_ran()

    def test_script_in_a_trace_is_text(self):
        self.site.trace(f"ERROR {SCRIPT}")
        self.open("#/traces")
        self.wait(lambda: SCRIPT in self.text(".log"), "the trace as text")
        self.site.trace(f"live {SCRIPT}")
        self.wait(lambda: f"live {SCRIPT}" in self.text(".log"), "the live trace as text")
        self.assert_nothing_ran()

    def test_control_characters_and_direction_marks_are_visible(self):
        self.site.append("hostile/marks", stamped(now(), "cpu=1% \x1b[31mred \u202egnp.exe"))
        self.open_report("hostile/marks")
        self.wait(lambda: "\\x1B[31mred \\u202Egnp.exe" in self.text(".log"), "the escapes")

    def test_report_name_that_is_not_utf8_is_shown_and_followed(self):
        name = os.fsdecode(b"hostile/caf\xe9")
        self.site.fill(name, 3, lambda i: f"cpu={i}%")
        self.open("#/?search=hostile/caf")
        self.wait(lambda: self.texts(".report-link") == ["hostile/caf\ufffd"], "the name with a replacement character")
        self.one(".report-link").click()
        self.wait(lambda: self.text("h1") == "hostile/caf\ufffd", "the report")
        self.wait_live()
        self.assertTrue(self.address.endswith("%E9"), self.address)
        self.wait(lambda: len(self.all('[aria-label="Records"] .log tbody tr')) == 3 and self.all(".chart canvas"), "its records and its chart")
        self.site.append(name, stamped(now(), "cpu=9% live"))
        self.wait(lambda: "live" in self.text('[aria-label="Records"] .log'), "a live record")
        reply = self.script("return fetch(document.querySelector('a[download]').href).then((reply) => reply.text())")
        self.assertIn("cpu=9% live", reply)

    def test_hostile_address_is_text(self):
        self.expect_error("404|400")
        for address in ("#/report/%3Cimg%20src=x%20onerror=window.hacked=1%3E", "#/<script>window.hacked=1</script>",
                        "#/?search=<img%20src=x%20onerror=window.hacked=1>", "#/report/..%2F..%2Fetc%2Fpasswd", "#/report/%FF%"):
            with self.subTest(address=address):
                self.open(address)
                self.assert_nothing_ran()

    def test_browser_turns_html_into_text(self):
        self.open("#/health")
        self.script("const node = document.createElement('div'); document.querySelector('main').append(node);"
                    "node.innerHTML = '<img src=x onerror=window.hacked=1>';")
        self.assertIn("<img src=x", self.text("main"))
        self.assert_nothing_ran()


class ModulesTest(unittest.TestCase):
    def test_modules_have_no_sink_of_html_or_code(self):
        files = sorted(path for path in WEB.iterdir() if path.suffix in (".js", ".html", ".svg"))
        self.assertGreater(len(files), 10)
        found = [f"{path.name}: {match[0]}" for path in files for match in SINKS.finditer(path.read_text(encoding="utf-8"))]
        self.assertEqual(found, [])

    def test_document_has_no_inline_script_or_style(self):
        text = (WEB / "index.html").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r"<style|style=|\son\w+=|<script(?![^>]*src=)", text), [])

    def test_all_pages_are_under_400_kb(self):
        library = "/usr/share/javascript/dygraphs/dygraph.min.js"
        with open(library, "rb") as file:
            total = len(file.read()) + sum(path.stat().st_size for path in WEB.iterdir())
        self.assertLess(total, PAGES_BYTES_MAX)


if __name__ == "__main__":
    unittest.main()
