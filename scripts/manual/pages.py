#!/usr/bin/env python3
"""Writes the manual. Section 3 comes from the public headers, so that there is one source for both.

usage: pages.py SOURCE_DIR OUTPUT_DIR     writes the pages below OUTPUT_DIR/man1 to man7
       pages.py SOURCE_DIR --names        prints each call and variable with its page

A header has one page, named after it, and each of its titled sections has one, named after its first
call. Every call and variable has a page of its own name that includes the one it stands on. An example
of a page is docs/man/examples/PAGE.c. The version that brought a call is the node of the symbol map.
The other sections are written by hand, in docs/man.
"""

import pathlib
import re
import sys

import headers
import markdown
import mdoc


class Page:
    """What one page holds: a header as a whole, or one of its sections."""

    def __init__(self, header, section):
        self.header = header
        self.sections = [section]
        self.overview = section is header.sections[0]
        self.name = header.name if self.overview else section.functions()[0].name
        self.purpose = header.purpose
        if not self.overview:
            self.purpose = section.title[0].lower() + section.title[1:]

    def symbols(self):
        return [each for section in self.sections for each in section.declarations()
                if each.function or each.variable]


def read_pages(source_dir):
    pages = []
    for path in sorted((source_dir / "include").glob("*.h")):
        header = headers.Header(path)
        pages += [Page(header, section) for section in header.sections]
    return pages


def versions(source_dir):
    """The version of the interface that brought each symbol."""
    text = re.sub(r"/\*.*?\*/", "", (source_dir / "src/lib/libconfsvc.map").read_text(), flags=re.S)
    found = {}
    for node, body in re.findall(r"CONFSVC_(\S+) \{(.*?)\}", text, flags=re.S):
        for name in re.findall(r"(\w+);", body):
            found[name] = node if "." in node else node + ".0"
    return found


def names_section(page):
    names = [page.name] + [each.name for each in page.symbols() if each.name != page.name]
    lines = [f".Nm {name} ," for name in names]
    lines[-1] = lines[-1][:-2]
    return [".Sh NAME"] + lines + [f".Nd {page.purpose}"]


def synopsis(page):
    out = [".Sh SYNOPSIS", f".In {page.header.file}"]
    for each in page.symbols():
        if each.variable:
            out.append(f".Vt {mdoc.escape(each.code.rstrip(';'))} ;")
            continue
        result, name, arguments = each.prototype()
        out += [f".Ft {mdoc.argument(result)}", f".Fo {name}"]
        out += [f".Fa {mdoc.argument(argument)}" for argument in arguments]
        out.append(".Fc")
    return out


def described(group, writer):
    """A group as entries of a list: names, text, and the code of what is no call."""
    out = []
    for each in group.declarations:
        out += [f".It {'Fn' if each.function else 'Vt'} {each.name}"]
        if each.remark:
            out += writer.paragraph(each.remark)
    out += writer.text(group.text)
    for each in group.declarations:
        if not each.function and not each.variable:
            out += mdoc.display(each.code)
    return out


def _apart(groups):
    """A text about declarations that have remarks of their own stands in front of them all."""
    for group in groups:
        if group.text and any(each.remark for each in group.declarations):
            yield headers.Group(group.text)
            rest = headers.Group("")
            rest.declarations = group.declarations
            yield rest
        else:
            yield group


def description(page, writer):
    out = [".Sh DESCRIPTION"]
    if page.overview:
        out += writer.text(page.header.text)
    for section in page.sections:
        listed = False
        for group in _apart(section.groups):
            if group.declarations and not listed:
                out.append(".Bl -tag -width Ds")
            elif not group.declarations and listed:
                out += [".El", ".Pp"]
            elif not group.declarations and len(out) > 1:
                out.append(".Pp")
            listed = bool(group.declarations)
            out += described(group, writer) if listed else writer.text(group.text)
        out += [".El"] if listed else []
    if not page.overview:
        out += [".Pp", "What holds for all calls of the header, such as the rules for threads, is in",
                f".Xr {page.header.name} 3 ."]
    return out


def example(page, source_dir):
    path = source_dir / "docs/man/examples" / f"{page.name}.c"
    if not path.exists():
        return []
    code = path.read_text()
    comment = re.match(r"/\* (.*?) \*/\n", code, flags=re.S)
    text = " ".join(comment.group(1).replace("\n *", "\n").split())
    return [".Sh EXAMPLES"] + mdoc.Writer({}, "").paragraph(text) + mdoc.display(code[comment.end() :])


def see_also(page, pages):
    """The other pages of the header, or those of the headers that it is built on, and the model."""
    others = {each.name for each in pages if each.header is page.header} - {page.name}
    if page.name != "conf_def":
        others.add("conf_def")
    out = [".Sh SEE ALSO"] + [f".Xr {name} 3 ," for name in sorted(others)]
    return out + [".Xr confsvc 7"]


def history(page, since):
    brought = sorted({since[each.name] for each in page.symbols()})
    if not brought:
        return []
    first = "These calls" if len(page.symbols()) > 1 else "This call"
    return [".Sh HISTORY", f"{first} appeared in version {', '.join(brought)} of the interface."]


def render(page, pages, places, since, source_dir):
    manual_date = re.search(r"^\.Dd .*$", (source_dir / "docs/man/confsvc.7").read_text(), flags=re.M)
    writer = mdoc.Writer(places, page.name)
    lines = [f".\\\" Made from include/{page.header.file}.", manual_date.group(0),
             f".Dt {page.name.upper()} 3", ".Os"]
    lines += names_section(page) + [".Sh LIBRARY", "libconfsvc", ".Pq Fl lconfsvc"]
    lines += synopsis(page) + description(page, writer) + example(page, source_dir)
    lines += see_also(page, pages) + history(page, since)
    return "\n".join(lines) + "\n"


def copy_written(source_dir, output_dir):
    """The pages that are written by hand; those that end in ".in" take in parts of docs/confsim.md."""
    source = (source_dir / "docs/confsim.md").read_text(encoding="utf-8")
    for path in sorted((source_dir / "docs/man").glob("*.[1-9]*")):
        text = path.read_text(encoding="utf-8")
        name = path.name.removesuffix(".in")
        if name != path.name:
            text = markdown.fill_in(text, source)
        section = output_dir / f"man{name[-1]}"
        section.mkdir(parents=True, exist_ok=True)
        (section / name).write_text(text, encoding="utf-8")


def main(source_dir, target):
    pages = read_pages(source_dir)
    places = {each.name: page.name for page in pages for each in page.symbols()}
    if target == "--names":
        print("\n".join(f"{name} {place}" for name, place in sorted(places.items())))
        return
    since = versions(source_dir)
    output_dir = pathlib.Path(target) / "man3"
    copy_written(source_dir, pathlib.Path(target))
    output_dir.mkdir(parents=True, exist_ok=True)
    for old in output_dir.glob("*.3"):
        old.unlink()
    for page in pages:
        text = render(page, pages, places, since, source_dir)
        (output_dir / f"{page.name}.3").write_text(text, encoding="utf-8")
    for name, place in places.items():
        if name != place:
            (output_dir / f"{name}.3").write_text(f".so man3/{place}.3\n", encoding="utf-8")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), sys.argv[2])
