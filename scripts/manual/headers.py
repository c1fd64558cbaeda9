"""Reads what a public header declares and says about it, for the manual pages and the site.

Relies on how the headers are written: one comment that opens the file, comments and declarations that
begin in the first column, `/* ---- Title ---- */` in front of each section. A comment belongs to the
declarations that follow it without an empty line.
"""

import re

_HIDDEN = "#" # stands behind a comment for lines that are not shown


class Group:
    """A comment and the declarations below it; either may be missing."""

    def __init__(self, text):
        self.text = text
        self.declarations = []


class Declaration:
    """One declaration: its name, its code, and the comment that stands behind it."""

    def __init__(self, code, remark):
        self.code = code
        self.remark = remark
        head = re.sub(r"/\*.*?\*/", "", code, flags=re.S)
        self.function = re.match(r"[a-z][^({]*?\b(\w+)\((.*)\)\s*;", head, flags=re.S)
        if head.startswith("typedef"):
            self.function = None
            name = re.search(r"\(\*(\w+)\)", head) if "{" not in head else None
            name = name or re.search(r"(\w+);\s*$", head)
        else:
            name = self.function or re.search(r"(?:enum|struct|#define) (\w+)", head)
            name = re.search(r"\b(\w+)(\[\w+\])*;", head) if head.startswith("extern") else name
        if not name:
            raise ValueError(f"a declaration without a name: {code}")
        self.name = name.group(1)
        self.variable = head.startswith("extern")

    def prototype(self):
        """Result type, name and arguments of a function."""
        head = re.sub(r"/\*.*?\*/", "", self.code, flags=re.S)
        result = head[: self.function.start(1)].strip()
        arguments, depth, words = [], 0, ""
        for letter in " ".join(self.function.group(2).split()):
            depth += {"(": 1, ")": -1}.get(letter, 0)
            if letter == "," and depth == 0:
                arguments.append(words.strip())
                words = ""
            else:
                words += letter
        return result, self.name, arguments + [words.strip()]


class Section:
    """Groups under one title; the first section of a header has none."""

    def __init__(self, title):
        self.title = title
        self.groups = []

    def declarations(self):
        return [each for group in self.groups for each in group.declarations]

    def functions(self):
        return [each for each in self.declarations() if each.function]


class Header:
    """A header file: what it is for in a few words, what holds for all of it, its sections."""

    def __init__(self, path):
        self.file = path.name
        self.name = path.stem
        lines = path.read_text(encoding="utf-8").split("\n")
        comment, position = _comment(lines, 0)
        opening = re.match(rf"{re.escape(self.file)} - ((.*?)[.:;](?:\s|$).*)", comment, flags=re.S)
        if not opening:
            raise ValueError(f"{self.file} does not open with its name and what it is")
        self.purpose = " ".join(opening.group(2).split())
        self.text = opening.group(1)[0].upper() + opening.group(1)[1:]
        self.sections = [Section(None)]
        self._read(_visible(lines[position:]))

    def _read(self, lines):
        group, position = None, 0
        while position < len(lines):
            line = lines[position]
            title = re.fullmatch(r"/\* -{4} (.*?) -+ \*/", line)
            if title:
                self.sections.append(Section(title.group(1)))
                group, position = None, position + 1
            elif line.startswith("/*"):
                text, position = _comment(lines, position)
                group = self._group(text)
            elif not line.strip() or line.startswith("CONF_STATIC_ASSERT"):
                while line.startswith("CONF_STATIC_ASSERT") and not lines[position].endswith(";"):
                    position += 1
                if lines[position - 1] == _HIDDEN and group and not group.declarations:
                    self.sections[-1].groups.pop() # it was about what is not shown
                group, position = None, position + 1
            elif line == _HIDDEN:
                position += 1
            else:
                code, remark, position = _declaration(lines, position)
                if re.fullmatch(r"struct \w+;", code): # says only that there is one
                    continue
                group = group or self._group("")
                group.declarations.append(Declaration(code, remark))

    def _group(self, text):
        group = Group(text)
        self.sections[-1].groups.append(group)
        return group


def _visible(lines):
    """The lines that a C compiler without extensions sees; of the macros, plain constants."""
    shown, hidden = [], []
    for line in lines:
        if re.match(r"#\s*if", line):
            hidden.append(not line.startswith("#ifndef"))
        elif re.match(r"#\s*else", line):
            hidden[-1] = False
        elif re.match(r"#\s*endif", line):
            if hidden:
                hidden.pop()
        elif any(hidden) or re.match(r"#(?!define \w+ )|extern \"C\"|}$", line):
            if shown and shown[-1].endswith(("*/", _HIDDEN)):
                shown.append(_HIDDEN)
        elif re.fullmatch(r"    ;", line): # ends a prototype whose attributes were hidden
            shown[-1] += ";"
        else:
            shown.append(line)
    return shown


def _comment(lines, position):
    """The text of the comment that begins there, its layout kept, and the line after it."""
    end = position
    while not lines[end].rstrip().endswith("*/"):
        end += 1
    if end == position:
        return lines[position][2:-2].strip(), end + 1
    first = lines[position][2:].strip()
    body = [re.sub(r"^ \* ?", "", line) for line in lines[position + 1 : end]]
    last = re.sub(r"^ \* ?", "", lines[end].rstrip()[:-2]).strip()
    return "\n".join(([first] if first else []) + body + ([last] if last else [])), end + 1


def _declaration(lines, position):
    """The code of the declaration that begins there, the comment behind it, the line after it."""
    code, end = lines[position], position + 1
    while not code.startswith("#") and not _is_whole(code):
        code += "\n" + lines[end]
        end += 1
    remark = re.search(r";\s*/\*(.*?)\*/$", code) or re.search(r"^#.*?/\*(.*?)\*/$", code)
    if remark:
        return code[: remark.start(1) - 2].rstrip(), remark.group(1).strip(), end
    return code, "", end


def _is_whole(code):
    bare = re.sub(r"/\*.*?\*/", "", code, flags=re.S)
    return bare.count("{") == bare.count("}") and bare.rstrip().endswith(";")
