#!/usr/bin/env python3
"""check.py DIRECTORY: prints the links of the book that lead to no file of the book, or to no place in that file."""
import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    """The links of a page, and the places in it."""

    def __init__(self, path):
        super().__init__()
        self.links = []
        self.places = set()
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        values = dict(attrs)
        if "id" in values:
            self.places.add(values["id"])
        self.links += [values[name] for name in ("href", "src") if values.get(name)]


def wrong_links(folder):
    """Yields a line "page: link" for each link that leads nowhere."""
    pages = {path: Page(path) for path in sorted(folder.glob("*.html"))}
    for path, page in pages.items():
        for link in page.links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme:
                continue
            target = (path.parent / urllib.parse.unquote(parts.path)) if parts.path else path
            has_place = not parts.fragment or (target in pages and urllib.parse.unquote(parts.fragment) in pages[target].places)
            if not target.exists() or not has_place:
                yield f"{path.name}: {link}"


def main():
    folder = pathlib.Path(sys.argv[1])
    if not (folder / "index.html").exists():
        sys.exit(f"check: {folder} has no book")
    wrong = list(wrong_links(folder))
    print("".join(line + "\n" for line in wrong), end="")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
