"""The frame of each page: head, search, navigation."""

import html
import posixpath

_GUIDES = ["docs/guide.html", "docs/testing.html"] # in the order in which they are read; others follow
_SIMULATOR = ["docs/confsim.html", "docs/json.html", "man/confsim.1.html", "man/confsim-script.5.html"]
_PROJECT = ["docs/promises.html", "CHANGELOG.html", "CONTRIBUTING.html"]
_PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>{title}</title>
<link rel="stylesheet" href="{root}style.css">
</head>
<body data-root="{root}">
<header>
<a class="home" href="{root}index.html">confsvc</a>
<div class="search"><input id="search" type="search" placeholder="Search" aria-label="Search"
autocomplete="off"><ol id="found" hidden></ol></div>
</header>
<div class="columns">
<nav><details id="contents"><summary>Contents</summary>
{navigation}</details></nav>
<main>
{body}</main>
</div>
<script src="{root}index.js"></script>
<script src="{root}search.js"></script>
</body>
</html>
"""


class Page:
    """Title and body of a page; pages that only show a file are not searched."""

    def __init__(self, title, body, summary="", searched=True):
        self.title = title
        self.body = body
        self.summary = summary
        self.searched = searched
        self.listed = False # whether the list of a directory's files is on it


def relative(page, target):
    return posixpath.relpath(target, posixpath.dirname(page) or ".")


class Navigation:
    """The list of pages that stands beside each of them."""

    def __init__(self, pages, families):
        self._pages = pages
        named = set(_SIMULATOR + _PROJECT)
        guides = [each for each in sorted(pages) if each.startswith("docs/") and each not in named]
        guides.sort(key=lambda each: _GUIDES.index(each) if each in _GUIDES else len(_GUIDES))
        examples = [each for each in sorted(pages)
                    if each.startswith("examples/") and each.count("/") == 2 and each.endswith("/index.html")]
        calls = ["man/confsvc.7.html"]
        for header, names in families.items():
            calls += [f"man/{header}.3.html"] + [f"man/{each}.3.html" for each in names if each != header]
        calls += [each for each in ("include/confsvc.hpp.html", "man/confd.conf.5.html") if each in pages]
        self._headers = {f"man/{header}.3.html" for header in families}
        self._groups = [("Guides", guides), ("The simulated daemon", _SIMULATOR), ("Examples", examples),
                        ("Reference", calls), ("Project", _PROJECT)]

    def render(self, name, page):
        title = page.title if name == "index.html" else f"{page.title} - confsvc"
        root = relative(name, ".")
        return _PAGE.format(title=html.escape(title), root="" if root == "." else root + "/",
                            navigation=self._list(name), body=page.body)

    def _list(self, own):
        out = []
        for title, pages in self._groups:
            out.append(f"<h2>{title}</h2>\n<ul>")
            for each in pages:
                here = ' aria-current="page"' if each == own else ""
                below = ' class="below"' if self._is_family(each) else ""
                summary = self._pages[each].summary
                hint = f' title="{html.escape(summary)}"' if summary else ""
                out.append(f'<li{below}><a href="{relative(own, each)}"{hint}{here}>'
                           f"{html.escape(self._pages[each].title)}</a></li>")
            out.append("</ul>")
        return "\n".join(out) + "\n"

    def _is_family(self, name):
        return name.endswith(".3.html") and name not in self._headers
