"""Turns the text of a comment into mdoc: paragraphs, indented code, lists, names of calls.

A line that is indented by four blanks or more is code. "1." or "-" begins an entry of a list, and so
does a word with two blanks behind it in a line that is indented by two.
"""

import re
import textwrap

_WIDTH = 78
_ENTRY = re.compile(r" {1,4}(\S(?:\S| (?! ))*) {2,}(\S.*)")
_NUMBER = re.compile(r" *(?:\d+\.|-) +(\S.*)")


def escape(text):
    """A text with nothing in it that mdoc would take for its own."""
    text = text.replace("\\", "\\e")
    return re.sub(r"^([.'])", r"\\&\1", text)


def argument(text):
    """A text as one argument of a macro."""
    return '"' + text.replace("\\", "\\e").replace('"', '""') + '"'


def display(code):
    lines = [escape(line) for line in textwrap.dedent(code).strip("\n").split("\n")]
    return [".Bd -literal -offset indent"] + lines + [".Ed"]


class Writer:
    """Knows which page each call is on, so that a call which is named becomes a reference."""

    def __init__(self, pages, own, code="Ar"):
        self._pages = pages
        self._own = own
        self._code = code # the macro of a word in backticks

    def text(self, comment):
        """The whole of a comment, without a break in front of its first paragraph."""
        out = []
        for block in _blocks(comment):
            lines = self._block(block)
            if out and not lines[0].startswith((".Bd", ".Bl")): # which leave a blank line themselves
                out.append(".Pp")
            out += lines
        return out

    def _block(self, lines):
        if all(line.startswith("    ") for line in lines if line):
            return display("\n".join(lines))
        if _NUMBER.match(lines[0]) and all(_NUMBER.match(each) or each[:2] == "  " for each in lines):
            return self._list(lines, _NUMBER, ".Bl -bullet" if "- " in lines[0][:4] else ".Bl -enum")
        if _ENTRY.fullmatch(lines[0]) and all(line.startswith(" ") for line in lines):
            return self._list(lines, _ENTRY, ".Bl -tag -width Ds")
        return self.paragraph(" ".join(" ".join(line.split()) for line in lines))

    def _list(self, lines, pattern, begin):
        entries = []
        for line in lines:
            entry = pattern.match(line)
            if entry and (not entries or _indent(line) <= _indent(lines[0])):
                entries.append(list(entry.groups()))
            else:
                entries[-1][-1] += " " + line.strip()
        out = [begin]
        for entry in entries:
            head = ".It Ar " + " , ".join(entry[0].split(", ")) if len(entry) == 2 else ".It"
            if len(entry) == 2 and re.fullmatch(r"-?\d+", entry[0]):
                head = ".It Li " + entry[0]
            out += [head] + self.paragraph(entry[-1])
        return out + [".El"]

    def paragraph(self, text):
        """A sentence begins a line, and a macro stands in one of its own."""
        out = []
        for sentence in re.split(r"(?<=[\w)\"`][.!?]) +", text):
            out += self._sentence(sentence)
        return out

    def _sentence(self, text):
        out, words = [], []

        def flush():
            if words:
                lines = textwrap.wrap(" ".join(words), _WIDTH, break_long_words=False,
                                      break_on_hyphens=False)
                out.extend(escape(line) for line in lines)
                words.clear()

        for word in re.findall(r"[^\s`]*`[^`]+`\S*|\S+", text):
            macro = self._macro(word)
            if macro:
                flush()
                out.append(macro)
            else:
                words.append(word)
        flush()
        return out

    def _macro(self, word):
        quoted = re.fullmatch(r"(\(?)`([^`]+)`(.*)", word)
        called = re.fullmatch(r"(\(?)(\w+)\(\)(.*)", word)
        header = re.fullmatch(r"(\(?)(conf_\w+\.h)(.*)", word)
        if quoted:
            before, name, after = quoted.groups()
            plain = re.fullmatch(r"\*?\w+", name) and self._code == "Ar"
            macro = "Ar " + name if plain else "Ql " + argument(name)
        elif called:
            before, name, after = called.groups()
            known = name in self._pages and self._pages[name] != self._own
            macro = f"Xr {name} 3" if known else f"Fn {name}"
        elif header:
            before, name, after = header.groups()
            macro = f"Xr {name[:-2]} 3" if name[:-2] != self._own else f"In {name}"
        else:
            return None
        if before and ")" in after:
            macro, after = f"Pq {macro}", after.replace(")", "", 1)
        elif before:
            macro = f"No ( Ns {macro}"
        if re.fullmatch(r"[.,:;)?!]*", after):
            return "." + macro + "".join(" " + letter for letter in after)
        return f".{macro} Ns {argument(after)}"


def _indent(line):
    return len(line) - len(line.lstrip())


def _blocks(comment):
    """The paragraphs, code blocks and lists, each a list of lines; frames around a text go."""
    blocks, current, kind = [], [], None
    for line in comment.split("\n"):
        framed = re.fullmatch(r"\|\s?(.*?)\s*\||\+-+\+", line.strip())
        line = (framed.group(1) or "") if framed else line
        if not line.strip():
            if kind == "code":
                current.append("")
            elif current:
                blocks.append(current)
                current, kind = [], None
            continue
        wanted = _kind(line, kind)
        if wanted != kind and current:
            blocks.append(current)
            current = []
        current.append(line)
        kind = wanted
    return blocks + [current] if current else blocks


def _kind(line, before):
    if before == "list" and line.startswith("  "):
        return "list"
    if line.startswith("    "):
        entry = _ENTRY.fullmatch(line)
        return "list" if entry and before == "text" and line[-1] not in ";{" else "code"
    if _NUMBER.match(line) and (line.startswith("  ") or line.startswith((" -", "- "))):
        return "list"
    if _ENTRY.fullmatch(line):
        return "list"
    return "text"
