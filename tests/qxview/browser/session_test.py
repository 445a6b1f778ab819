"""Tests the session: the printed address, the login page, a used token."""
import unittest

from selenium.webdriver.common.keys import Keys
from support import BrowserTest


class SessionTest(BrowserTest):
    def setUp(self):
        super().setUp()
        self.driver.get("about:blank")
        self.command("Network.clearBrowserCookies")
        self.expect_error(r"api/v1/.*401")
        self.expect_error(r"api/v1/session .*403")

    def test_printed_address_logs_in_and_the_token_leaves_the_address(self):
        self.site.renew_address()
        self.driver.get(self.site.address)
        self.wait(lambda: self.text("h1") == "Overview", "the overview")
        self.assertEqual(self.address, self.site.base + "/#/")

    def test_page_without_session_asks_for_the_printed_address(self):
        self.driver.get(self.site.base + "/#/traces")
        self.wait(lambda: self.all("form"), "the login page")
        self.assertIn("Address printed by qxview", self.text("label"))
        self.assertEqual(self.script("return document.activeElement.id"), "address")

    def test_pasted_address_logs_in_and_shows_the_requested_view(self):
        self.site.renew_address()
        self.driver.get(self.site.base + "/#/traces")
        self.wait(lambda: self.all("form"), "the login page")
        self.one("#address").send_keys(self.site.address, Keys.ENTER)
        self.wait(lambda: self.text("h1") == "Traces", "the traces after the login")

    def test_used_token_is_refused_with_a_reason(self):
        self.site.renew_address()
        self.driver.get(self.site.address)
        self.wait(lambda: self.text("h1") == "Overview", "the overview")
        self.command("Network.clearBrowserCookies")
        self.driver.get("about:blank")
        self.driver.get(self.site.address)
        self.wait(lambda: self.all("form"), "the login page")
        self.assertIn("token", self.text("#login-problem"))
        self.assertNotIn("token", self.address)

    def test_text_without_token_is_refused_by_the_page(self):
        self.driver.get(self.site.base)
        self.wait(lambda: self.all("form"), "the login page")
        self.one("#address").send_keys("http://127.0.0.1/", Keys.ENTER)
        self.wait(lambda: "not an address with a token" in self.text("#login-problem"), "the reason")


if __name__ == "__main__":
    unittest.main()
