#!/usr/bin/env python3
"""Checks the site: links and anchors lead somewhere, nothing comes from outside, symbols are found.

usage: check.py SITE_DIR SYMBOL_MAP

The symbols are those of the library's symbol map. Prints each finding, and fails if there is one.
"""

import html.parser
import json
import pathlib
import posixpath
import re
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    """The anchors, links and resources of one page."""

    def __init__(self, text):
        super().__init__()
        self.anchors = []
        self.links = []
        self.resources = []
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        if "id" in attributes:
            self.anchors.append(attributes["id"])
        if tag == "a" and attributes.get("href") is not None:
            self.links.append(attributes["href"])
        elif "href" in attributes and tag != "a":
            self.resources.append(attributes["href"])
        self.resources += [attributes[each] for each in ("src", "srcset", "poster", "data")
                           if attributes.get(each)]


def is_outside(link):
    return re.match(r"[a-z][a-z0-9+.-]*:|//", link) is not None


def find_broken(name, link, pages, files):
    """What is wrong with a link within the site, or none."""
    file, _, anchor = link.partition("#")
    directory = posixpath.dirname(name)
    target = posixpath.normpath(posixpath.join(directory, urllib.parse.unquote(file))) if file else name
    if target not in files:
        return f"{name}: {link} leads to no file"
    if anchor and target in pages and urllib.parse.unquote(anchor) not in pages[target].anchors:
        return f"{name}: {link} leads to no anchor"
    return None


def check_page(name, pages, files):
    page = pages[name]
    for each in sorted({each for each in page.anchors if page.anchors.count(each) > 1}):
        yield f"{name}: the anchor {each} is there twice"
    for link in page.links:
        if not is_outside(link):
            broken = find_broken(name, link, pages, files)
            if broken:
                yield broken
        elif not re.fullmatch(r"https://[\w.-]+\.[a-z]+(:\d+)?(/\S*)?|mailto:\S+@\S+", link):
            yield f"{name}: {link} is no link"
    for resource in page.resources:
        broken = "comes from outside" if is_outside(resource) else None
        broken = broken or find_broken(name, resource, pages, files)
        if broken:
            yield f"{name}: {resource}: {broken}"


def check_index(site_dir, symbol_map, pages, files):
    """Each record of the search leads somewhere, and each symbol is the title of one."""
    text = (site_dir / "index.js").read_text(encoding="utf-8")
    records = json.loads(text[text.index("[") : text.rindex(";")])
    for record in records:
        broken = find_broken("index.html", record["u"], pages, files)
        if broken:
            yield f"search: {broken}"
    titles = {record["t"] for record in records if "#" in record["u"]}
    body = re.sub(r"/\*.*?\*/", "", symbol_map.read_text(encoding="utf-8"), flags=re.S)
    symbols = set(re.findall(r"(?<!\} )\b(\w+);", body))
    if not symbols:
        yield f"{symbol_map} names no symbols"
    for symbol in sorted(symbols - titles):
        yield f"search: {symbol} is not found"


def main(site_dir, symbol_map):
    files = {path.relative_to(site_dir).as_posix(): path for path in site_dir.rglob("*") if path.is_file()}
    pages = {name: Page(path.read_text(encoding="utf-8"))
             for name, path in files.items() if name.endswith(".html")}
    findings = [each for name in sorted(pages) for each in check_page(name, pages, files)]
    findings += check_index(site_dir, symbol_map, pages, files)
    for each in sorted(name for name in files if name.endswith((".css", ".js"))):
        text = files[each].read_text(encoding="utf-8")
        if each != "index.js" and re.search(r"https?:|url\(|@import|\bimport\b|fetch\(", text):
            findings.append(f"{each}: loads something")
    print("\n".join(findings) if findings else
          f"{len(pages)} pages, {sum(len(page.links) for page in pages.values())} links: sound")
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
