"""Tests accessibility: accessible names, order of focus, visible focus, contrast in both schemes, small screens, little motion."""
import math
import unittest

from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.keys import Keys
from support import BrowserTest

VIEWS = ["#/", "#/report/access/machine?field=cpu&field=load", "#/traces", "#/health"]
NAMED_ROLES = {"button", "link", "textbox", "searchbox", "combobox", "slider", "checkbox", "table", "region", "navigation", "image",
               "meter", "group", "DisclosureTriangle"}

# Each text with its colour and the colours below it, from the nearest element to the document.
TEXTS = """
const parse = (text) => { const [r, g, b, a = 1] = text.match(/[\\d.]+/g).map(Number); return [r, g, b, a]; };
const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
const found = [];
for (let node = walker.nextNode(); node; node = walker.nextNode()) {
  const element = node.parentElement;
  const style = getComputedStyle(element);
  const range = document.createRange();
  range.selectNodeContents(node);
  const box = range.getBoundingClientRect();
  if (node.data.trim() === '' || box.width === 0 || style.visibility === 'hidden' || style.clipPath !== 'none' || element.closest('.hidden, .skip')) continue;
  const grounds = [];
  for (let at = element; at; at = at.parentElement) grounds.push(parse(getComputedStyle(at).backgroundColor));
  found.push({ text: node.data.trim().slice(0, 40), color: parse(style.color), grounds, size: parseFloat(style.fontSize),
    bold: Number(style.fontWeight) >= 700, where: element.className.baseVal ?? element.className });
}
return found;
"""
FOCUSED = """
const node = document.activeElement;
const style = getComputedStyle(node);
const box = node.getBoundingClientRect();
return { tag: node.tagName, text: (node.getAttribute('aria-label') ?? node.innerText ?? '').trim().slice(0, 40) || node.placeholder,
  card: [...document.querySelectorAll('.top, .report-head, .tools, .card, .head-facts')].findIndex((card) => card.contains(node)),
  top: box.top + scrollY, bottom: box.bottom + scrollY, left: box.left, outline: style.outlineStyle, width: parseFloat(style.outlineWidth),
  color: style.outlineColor.match(/[\\d.]+/g).map(Number), index: [...document.querySelectorAll('*')].indexOf(node) };
"""


def blended(colors):
    """The visible colour of layers, of which the nearest one is the first."""
    seen = [255, 255, 255]
    for r, g, b, a in reversed(colors):
        seen = [a * new + (1 - a) * old for new, old in zip((r, g, b), seen)]
    return seen


def luminance(color):
    shares = [value / 255 for value in color[:3]]
    linear = [share / 12.92 if share <= 0.04045 else math.pow((share + 0.055) / 1.055, 2.4) for share in shares]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(a, b):
    light, dark = sorted((luminance(a), luminance(b)), reverse=True)
    return (light + 0.05) / (dark + 0.05)


class AccessTest(BrowserTest):
    filled = False

    def setUp(self):
        super().setUp()
        if not self.filled:
            self.site.fill("access/machine", 60, lambda i: f"cpu={i}% load={i / 100}")
            for text in ("opened", "WARNING: slow", "ERROR: closed"):
                self.site.trace(text)
            type(self).filled = True

    def show(self, view):
        self.open(view)
        self.wait_live()
        self.wait(lambda: self.all(".chart canvas, .reports tbody tr, .log-tall, .findings"), "the content")

    def test_every_control_has_an_accessible_name(self):
        for view in VIEWS:
            with self.subTest(view=view):
                self.show(view)
                nodes = self.command("Accessibility.getFullAXTree")["nodes"]
                named = [(node["role"]["value"], node.get("name", {}).get("value", "")) for node in nodes
                         if not node["ignored"] and node["role"]["value"] in NAMED_ROLES]
                self.assertGreater(len(named), 8)
                self.assertEqual([role for role, name in named if not name.strip()], [])

    def test_views_have_landmarks_and_one_heading_of_level_one(self):
        for view in VIEWS:
            with self.subTest(view=view):
                self.show(view)
                roles = [node["role"]["value"] for node in self.command("Accessibility.getFullAXTree")["nodes"] if not node["ignored"]]
                for role in ("banner", "navigation", "main"):
                    self.assertEqual(roles.count(role), 1, role)
                self.assertEqual(len(self.all("h1")), 1)

    def test_states_have_words_as_well_as_colours(self):
        self.show("#/")
        for state in self.texts("td.column-state"):
            self.assertRegex(state, "Error|Warning|Note|Good")
        self.show("#/report/access/machine?field=cpu&field=load")
        dashes = [node.get_attribute("stroke-dasharray") for node in self.all('[aria-pressed="true"] .swatch line')]
        self.assertEqual(len(set(dashes)), 2, "two lines with one pattern")

    def tabbed(self):
        """The elements that the tab key reaches, in its order, from the start of the page."""
        found = []
        while len(found) < 200:
            ActionChains(self.driver).send_keys(Keys.TAB).perform()
            focused = self.script(FOCUSED)
            if focused["tag"] == "BODY" or (found and focused["index"] == found[0]["index"]):
                break
            found.append(focused)
        return found

    def test_focus_follows_the_reading_order_and_is_visible(self):
        reachable = """return [...document.querySelectorAll('a[href], button, input, select, summary, [tabindex="0"]')]
            .filter((node) => node.checkVisibility() && !node.disabled).length"""
        for view in VIEWS:
            with self.subTest(view=view):
                self.show(view + ("&" if "?" in view else "?") + "search=access&filter=cpu")
                count = self.script(reachable)
                found = self.tabbed()
                self.assertEqual(found[0]["text"], "Skip to the content")
                self.assertGreaterEqual(len(found), count)
                for one, other in zip(found[1:], found[2:]):
                    self.assertLess(one["index"], other["index"], f"{one['text']} before {other['text']}")
                    if one["card"] == other["card"]:
                        self.assertLess(one["top"], other["bottom"], f"{other['text']} is above {one['text']}")
                for one in found:
                    self.assertNotEqual(one["outline"], "none", one["text"])
                    self.assertGreaterEqual(one["width"], 2, one["text"])

    def test_skip_link_moves_to_the_content(self):
        self.show("#/")
        ActionChains(self.driver).send_keys(Keys.TAB, Keys.ENTER).perform()
        self.assertEqual(self.script("return document.activeElement.id"), "content")
        self.assertNotIn("#content", self.address)

    def assert_contrast(self, what):
        texts = self.script(TEXTS)
        self.assertGreater(len(texts), 5)
        for one in texts:
            ground = blended(one["grounds"])
            ratio = contrast(blended([one["color"], [*ground, 1]]), ground)
            least = 3 if one["size"] >= 24 or (one["bold"] and one["size"] >= 18.66) else 4.5
            self.assertGreaterEqual(round(ratio, 2), least, f"{what}: {one['text']!r} ({one['where']})")

    def test_contrast_of_texts_in_light_and_dark(self):
        for scheme in ("light", "dark"):
            self.media(prefers_color_scheme=scheme)
            for view in VIEWS:
                with self.subTest(scheme=scheme, view=view):
                    self.show(view)
                    self.assert_contrast(f"{scheme} {view}")

    def test_contrast_of_focus_borders_and_lines(self):
        colors = """const style = getComputedStyle(document.documentElement);
            const node = document.createElement('i');
            document.body.append(node);
            const found = Object.fromEntries(arguments[0].map((name) => {
              node.style.color = style.getPropertyValue(name);
              return [name, getComputedStyle(node).color.match(/[\\d.]+/g).map(Number)];
            }));
            node.remove();
            return found;"""
        marks = ["--accent", "--control", "--error", "--warning", "--info", "--ok"] + [f"--series-{i}" for i in range(1, 7)]
        for scheme in ("light", "dark"):
            self.media(prefers_color_scheme=scheme)
            self.show("#/")
            found = self.script(colors, marks + ["--card", "--ground"])
            for mark in marks:
                for ground in ("--card", "--ground"):
                    with self.subTest(scheme=scheme, mark=mark, ground=ground):
                        self.assertGreaterEqual(contrast(found[mark], found[ground]), 3)

    def test_small_screen_needs_no_sideways_scrolling(self):
        self.screen(360, 740)
        for view in VIEWS:
            with self.subTest(view=view):
                self.show(view)
                self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), 360)

    def test_reduced_motion_stops_animations(self):
        self.media(prefers_reduced_motion="reduce")
        self.show("#/report/access/machine")
        self.site.append("access/machine", "cpu=3%")
        self.wait(lambda: self.all(".log tr.new"), "a new row")
        self.assertEqual(self.script("return document.getAnimations().length"), 0)

    def test_login_page_has_names_and_contrast(self):
        self.expect_error("401")
        self.command("Network.clearBrowserCookies")
        for scheme in ("light", "dark"):
            self.media(prefers_color_scheme=scheme)
            self.driver.get(self.site.base + "/")
            self.driver.refresh()
            self.wait(lambda: self.all("form"), "the login page")
            nodes = self.command("Accessibility.getFullAXTree")["nodes"]
            boxes = [node["name"]["value"] for node in nodes if node["role"].get("value") == "textbox"]
            self.assertEqual(boxes, ["Address printed by qxview"])
            self.assert_contrast(f"{scheme} login")


if __name__ == "__main__":
    unittest.main()
