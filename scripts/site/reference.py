"""Pages of the manual for the site, from the same source as those for man(1).

Relies on scripts/manual for the pages in mdoc and for what is declared where, and on mandoc.
"""

import html
import pathlib
import re
import subprocess
import sys

import layout

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "manual"))
import pages as manual_pages

_NAME = r'(?:<a [^>]*>)?<(?:code|var) class="(?:Fn|Vt)">{}<' # stands at the head of an entry


class Manual:
    """The manual, written into a scratch directory."""

    def __init__(self, source_dir, scratch_dir):
        self._families = manual_pages.read_pages(source_dir)
        self._places = {each.name: page.name for page in self._families for section in page.sections
                        for each in section.declarations()}
        manual_pages.main(source_dir, str(scratch_dir))
        self._files = [path for path in sorted(scratch_dir.glob("man*/*"))
                       if not path.read_text(encoding="utf-8").startswith(".so ")]

    def families(self):
        """Headers in order, each with its name and the names of its pages."""
        found = {}
        for page in self._families:
            found.setdefault(page.header.name, []).append(page.name)
        return found

    def symbols(self):
        """Each call, variable, type and constant, with the page that describes it."""
        return {name: f"man/{page}.3.html#{name}" for name, page in self._places.items()}

    def pages(self):
        found = {}
        for path in self._files:
            name, section = path.stem, path.suffix[1:]
            body = subprocess.run(["mandoc", "-T", "html", "-O", "fragment,man=%N.%S.html", path],
                                  check=True, stdout=subprocess.PIPE).stdout.decode()
            body = self._link(self._anchor(body), path.parent.parent)
            title = f"{name}({section})"
            purpose = html.unescape(" ".join(re.search(r'class="Nd">(.*?)</span>', body, re.S)[1].split()))
            found[f"man/{path.name}.html"] = layout.Page(
                title, f"<h1>{title}</h1>\n{body}", summary=re.sub(r"<[^>]*>", "", purpose))
        return found

    def _anchor(self, body):
        """Puts the anchor of what is declared where it is described, not where it is first named."""
        body = re.sub(r'<table class="(?:head|foot)">.*?</table>\n?', "", body, flags=re.S)
        body = re.sub(r"<(/?)h([12])\b", lambda match: f"<{match[1]}h{int(match[2]) + 1}", body)
        for name in re.findall("<dt[^>]*>" + _NAME.format(r"(\w+)"), body):
            if name in self._places:
                body = re.sub(f' id="{name}(~[0-9]+)?"', "", body)
                body = re.sub(f'href="#{name}~[0-9]+"', f'href="#{name}"', body)
                body = re.sub(f"<dt[^>]*>(?={_NAME.format(name)})", f'<dt id="{name}">', body, count=1)
        return body

    def _link(self, body, root):
        """References to an alias lead to the place on the page it stands for; those outside lose it."""
        def target(match):
            name, section = match[1], match[2]
            page = self._places.get(name) if section == "3" else None
            if page and page != name:
                return f'href="{page}.3.html#{name}">{match[3]}</a>'
            if (root / f"man{section}" / f"{name}.{section}").exists():
                return f'href="{name}.{section}.html">{match[3]}</a>'
            return f">{match[3]}</a>"

        return re.sub(r'href="([^"/#]+)\.([1-9])\.html">(.*?)</a>', target, body, flags=re.S)
