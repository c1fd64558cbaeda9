#!/usr/bin/env python3
"""Builds the documentation site: static pages that need no server and nothing from outside.

usage: build.py SOURCE_DIR OUTPUT_DIR

Pages stand where their sources do: docs/guide.md becomes docs/guide.html, README.md index.html. So a
link between two Markdown files becomes one between two pages by its ending alone. Pages of the manual
are in man/, made by scripts/manual; a link to a header leads to its page there. Any other file that a
page links to, such as an example, is shown as it is. Relies on cmark-gfm and mandoc. Nothing depends on
the time or on the order of files in a directory, so two builds are the same to the byte.
"""

import html
import pathlib
import posixpath
import re
import shutil
import subprocess
import sys
import tempfile

import index
import layout
import reference

_WRITTEN = ["README.md", "docs/*.md", "docs/guide/*.md", "examples/*/README.md", "packaging/README.md",
            "CONTRIBUTING.md", "CHANGELOG.md"]


def place(name):
    """Where the page of a file of the sources stands."""
    if name.startswith("include/conf_"):
        return f"man/{pathlib.PurePath(name).stem}.3.html"
    if name.endswith("README.md"):
        return name.removesuffix("README.md") + "index.html"
    return re.sub(r"\.md$", "", name) + ".html"


def slug(title, taken):
    """The anchor of a heading, as GitHub makes it."""
    text = re.sub(r"[^\w\- ]", "", html.unescape(re.sub(r"<[^>]*>", "", title)).strip().lower())
    text = text.replace(" ", "-")
    count = taken.get(text, 0)
    taken[text] = count + 1
    return f"{text}-{count}" if count else text


class Site:
    """The pages so far, and the files that they link to and that are to become pages yet."""

    def __init__(self, source_dir):
        self.source_dir = source_dir
        self.pages = {}
        self._wanted = []

    def add_written(self):
        names = {path.relative_to(self.source_dir).as_posix()
                 for pattern in _WRITTEN for path in self.source_dir.glob(pattern)}
        for name in sorted(names):
            title, body = self._markdown(name)
            self.pages[place(name)] = layout.Page(title, body)

    def add_linked(self):
        """Each file or directory that is linked to and has no page of its own."""
        while self._wanted:
            name = self._wanted.pop()
            path = self.source_dir / name
            if path.is_dir():
                self._add_directory(name, path)
            elif place(name) not in self.pages:
                code = html.escape(path.read_text(encoding="utf-8"), quote=False)
                body = f"<h1>{html.escape(name)}</h1>\n<pre><code>{code}</code></pre>\n"
                self.pages[place(name)] = layout.Page(name, body, searched=False)

    def _add_directory(self, name, path):
        """The README of a directory with the list of its files below, or the list alone."""
        page = self.pages.setdefault(
            f"{name}/index.html", layout.Page(name, f"<h1>{html.escape(name)}</h1>\n", searched=False))
        if page.listed:
            return
        page.listed = True
        files = [each.relative_to(path).as_posix() for each in sorted(path.rglob("*"))
                 if each.is_file() and "__pycache__" not in each.parts and each.name != "README.md"]
        entries = [f'<li><a href="{html.escape(each)}.html">{html.escape(each)}</a></li>' for each in files]
        page.body += "<h2>Files</h2>\n<ul>\n" + "\n".join(entries) + "\n</ul>\n"
        self._wanted += [f"{name}/{each}" for each in files]

    def _markdown(self, name):
        """Title and HTML of a Markdown file, with anchors, and links that lead to pages."""
        text = subprocess.run(["cmark-gfm", "--extension", "table", "--extension", "autolink",
                               self.source_dir / name], check=True, stdout=subprocess.PIPE).stdout.decode()
        taken = {}

        def heading(match):
            return f'<h{match[1]} id="{slug(match[2], taken)}">{match[2]}</h{match[1]}>'

        text = re.sub(r"<h([1-6])>(.*?)</h\1>", heading, text, flags=re.S)
        text = re.sub(r'href="([^"]*)"', lambda match: f'href="{self._target(name, match[1])}"', text)
        text = text.replace("<table>", '<div class="wide"><table>').replace("</table>", "</table></div>")
        title = re.search(r"<h1[^>]*>(.*?)</h1>", text, flags=re.S)
        if not title:
            raise SystemExit(f"{name} has no title")
        return html.unescape(re.sub(r"<[^>]*>", "", title[1])), text

    def _target(self, name, link):
        if re.match(r"[a-z]+:|#", link):
            return link
        file, hash_sign, anchor = link.partition("#")
        file = posixpath.normpath(posixpath.join(posixpath.dirname(name), file))
        path = self.source_dir / file
        if not path.exists():
            raise SystemExit(f"{name} links to {link}, which is not there")
        if path.is_dir():
            target = f"{file}/index.html"
        else:
            target = place(file)
        if not file.endswith(".md") and not target.startswith("man/"):
            self._wanted.append(file)
        return layout.relative(place(name), target) + hash_sign + anchor


def main(source_dir, output_dir):
    site = Site(source_dir)
    site.add_written()
    site.add_linked()
    with tempfile.TemporaryDirectory() as scratch:
        manual = reference.Manual(source_dir, pathlib.Path(scratch))
        site.pages.update(manual.pages())
    navigation = layout.Navigation(site.pages, manual.families())
    if output_dir.exists():
        shutil.rmtree(output_dir)
    for name, page in sorted(site.pages.items()):
        path = output_dir / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(navigation.render(name, page), encoding="utf-8")
    for name in ("style.css", "search.js"):
        shutil.copyfile(pathlib.Path(__file__).parent / name, output_dir / name)
    (output_dir / "index.js").write_text(index.write(site.pages, manual.symbols()), encoding="utf-8")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]))
