"""Brings parts of docs/confsim.md into manual pages: a table, or all that stands below a heading.

A line "@TABLE TITLE" in a page stands for the entries of the first table whose first column has that
title, a line "@BELOW HEADING" for the text below that heading.
"""

import re

import mdoc

_MACROS = {"option": "Fl", "command": "Ic"} # of what the first column of a table holds; else Cm
_WRITER = mdoc.Writer({}, "", code="Ql")


def fill_in(page, source):
    """The text of a page with the parts of the Markdown text `source` in their places."""
    out = []
    for line in page.split("\n"):
        wanted = re.fullmatch(r"@(TABLE|BELOW) (.*)", line)
        if not wanted:
            out.append(line)
        elif wanted.group(1) == "TABLE":
            out += _table(_between(source, f"\n| {wanted.group(2)} |", "\n\n"), wanted.group(2))
        else:
            out += _text(_between(source, f"\n## {wanted.group(2)}\n", "\n## "))
    return "\n".join(out)


def _between(source, begin, end):
    if begin not in source:
        raise SystemExit(f"docs/confsim.md lacks what a page takes from it: {begin.strip()}")
    return source.split(begin, 1)[1].split(end, 1)[0]


def _plain(text):
    """Without links; what they would have led to is said when nothing else is."""
    text = re.sub(r"(?<!^),? *\bsee (below|\[[^]]*\]\([^)]*\))", "", text)
    return re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", text).replace("\\|", "|")


def _table(text, title):
    macro = _MACROS.get(title, "Cm")
    out = []
    for row in text.strip().split("\n")[2:]:
        head, meaning = (cell.strip() for cell in re.split(r"(?<!\\)\|", row.strip())[1:3])
        for form in re.findall(r"`([^`]+)`", head):
            word, *arguments = form.replace("\\|", "|").split()
            word = word.removeprefix("-") if macro == "Fl" else word
            out.append(" ".join([f".It {macro} {word}"] +
                                [f"Ar {mdoc.argument(each)}" for each in arguments]))
        meaning = _plain(meaning)
        if title in _MACROS:
            meaning = meaning[0].upper() + meaning[1:] + "."
        out += _WRITER.paragraph(meaning)
    return out


def _text(text):
    out = []
    for block in re.findall(r"^```.*?^```$|(?:^[^\n]+\n?)+", text, flags=re.M | re.S):
        lines = block.rstrip("\n").split("\n")
        if lines[0].startswith("```"):
            part = mdoc.display("\n".join(lines[1:-1]))
        elif lines[0].startswith("    "):
            part = mdoc.display(block)
        elif lines[0].startswith("| "):
            title, meaning = re.split(r" *\| *", lines[0])[1:3]
            part = [".Bl -tag -width Ds"] + _table("\n".join(lines), title) + [".El"]
            if title not in _MACROS and meaning:
                part = _WRITER.paragraph(meaning[0].upper() + meaning[1:] + ":") + part
        else:
            part = _prose(lines)
        if out and not part[0].startswith((".Bd", ".Bl")):
            out.append(".Pp")
        out += part
    return out


def _prose(lines):
    """A paragraph, and the list that may follow it at once."""
    first = next((i for i, line in enumerate(lines) if line.startswith("- ")), len(lines))
    out = _WRITER.paragraph(_plain(" ".join(lines[:first]))) if first > 0 else []
    if first < len(lines):
        out.append(".Bl -bullet")
        for entry in re.split(r"(?:^|\n)- ", "\n".join(lines[first:]))[1:]:
            out += [".It"] + _WRITER.paragraph(_plain(" ".join(entry.split())))
        out.append(".El")
    return out
