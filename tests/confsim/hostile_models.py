#!/usr/bin/env python3
"""Modules and data that nobody would write in good faith: each ends in the result or the reason that
stands beside it, and never in a crash or a hang.

hostile_models.py CONFSIM [sanitized]
"""
import concurrent.futures
import os
import subprocess
import sys
import tempfile

A_LOT = 100000


def module(body, head="", name="m"):
    return (f'module {name} {{ yang-version 1.1; namespace "urn:{name}"; prefix {name}; {head}\n'
            f"{body}\n}}\n")


def nested(depth, kind="container"):
    return "".join(f"{kind} c{i} {{ " for i in range(depth)) + "leaf x { type string; }" + "}" * depth


def must(expression):
    return f'leaf x {{ must "{expression}"; type string; }}'


def pattern(text):
    return f"leaf x {{ type string {{ pattern '{text}'; }} }}"


def keys(count):
    names = [f"k{i}" for i in range(count)]
    return (f'list l {{ key "{" ".join(names)}"; '
            + "".join(f"leaf {each} {{ type string; }}" for each in names) + "}")


# Each doubles the one before, so that the last has a billion nodes.
BOMB = "grouping g0 { leaf x { type string; } }" + "".join(
    f"grouping g{i} {{ container a {{ uses g{i - 1}; }} container b {{ uses g{i - 1}; }} }}"
    for i in range(1, 31)) + "uses g30;"
DIAMONDS = "identity a0; identity b0;" + "".join(
    f"identity {side}{i} {{ base a{i - 1}; base b{i - 1}; }}" for i in range(1, 60)
    for side in "ab") + "leaf x { type identityref { base a0; } }"

SET = "set /m:x 1"
LONG = "set /m:x " + "a" * 5000 + "!"
THROUGH = None # every command succeeds
TOO_BIG = "memory exhausted?"

# A module, the commands, and what is said of it.
MODULES = [
    (nested(190), "", THROUGH),
    (nested(205), "", "nested too deep"),
    (nested(A_LOT), "", "block nestings has been exceeded"),
    (nested(120, "choice"), "", "nested too deep"),
    (module("container a;") * 2, "", "end-of-input"),
    ("grouping g { container a { uses g; } } uses g;", "", "references itself"),
    (BOMB, "", TOO_BIG),
    ("typedef t { type u; } typedef u { type t; } leaf x { type t; }", "", "circular chain of types"),
    ('leaf a { type leafref { path "../b"; } } leaf b { type leafref { path "../a"; } }', "",
     "circular chain of leafrefs"),
    ('leaf x { when "../y"; type string; } leaf y { when "../x"; type string; }', "",
     "cyclic dependency"),
    ("feature a { if-feature b; } feature b { if-feature a; }", "", "referenced from itself"),
    (DIAMONDS, "set /m:x m:b59\ncommit", THROUGH),
    (must("(" * 10000 + "1" + ")" * 10000), "", "nesting of expressions"),
    (must("(" * 50), "", "XPath expression end"),
    (must("nothing(1)"), "", "Unknown XPath function"),
    (pattern("((a+)+)+b"), LONG, "match limit exceeded"),
    (pattern("(["), "", "not valid"),
    (pattern("(" * A_LOT + ")" * A_LOT), "", "not valid"),
    (keys(200), "set /m:l" + "".join(f"[k{i}='v']" for i in range(200)) + "\ncommit\nvalidate", THROUGH),
    ("list l { key k; min-elements 4294967295; leaf k { type string; } }", "set /m:l[k='1']\ncommit",
     'Too few "l"'),
    ("list l { key c; container c; }", "", 'key "c" not found'),
    ("leaf x { type int8; default 300; }", "", "out of type int8"),
    (f"leaf {'n' * 60000} {{ type string; }}", "", THROUGH),
]

DATA_MODULE = module('container c { list l { key "a b"; leaf a { type string; } leaf b { type string; } }'
                     "leaf n { type int8; } anydata any; leaf-list ll { type string; } }")


def xml(inner):
    return f'<c xmlns="urn:m">{inner}</c>'


def json(inner):
    return f'{{"m:c":{{{inner}}}}}'


ENTITIES = '<!DOCTYPE c [<!ENTITY a0 "aaaaaaaaaa">' + "".join(
    f'<!ENTITY a{i} "{f"&a{i - 1};" * 10}">' for i in range(1, 12)) + "]>"

# Data, by the name of their file, and what is said when they are loaded.
DATA = [
    ("xml", ENTITIES + xml("<ll>&a11;</ll>"), "entity reference loop"),
    ("xml", '<!DOCTYPE c [<!ENTITY e SYSTEM "file:///etc/passwd">]>' + xml("<ll>&e;</ll>"),
     "document type declaration"),
    ("xml", xml("<any>" + "<q>" * A_LOT + "</q>" * A_LOT + "</any>"), "depth in document"),
    ("xml", xml("<ll>" + "x" * 11000000 + "</ll>"), "Extra content"),
    ("xml", xml("<l><a>1</a></l>"), 'missing its key "b"'),
    ("xml", xml("<l><a>1</a><b>2</b></l>" * 2), "more than one"),
    ("xml", b'<c xmlns="urn:m"><ll>\xe9</ll></c>', "not proper UTF-8"),
    ("xml", b'<c xmlns="urn:m"><ll>a\0b</ll></c>', "Premature end"),
    ("json", "[" * A_LOT, "array found"),
    ("json", json('"any":' + '{"a":' * A_LOT + "1" + "}" * A_LOT), "block nestings"),
    ("json", json('"n":1e2147483647'), "out-of-bounds"),
    ("json", json('"n":1e100000000'), "out-of-bounds"),
    ("json", json('"ll":["\\ud800"]'), "Invalid character reference"),
    ("json", json('"ll":["\\u0000"]'), "Invalid character reference"),
    ("json", json('"l":[{"a":"1","b":"2"},{"a":"1","b":"2"}]'), "more than one"),
    ("json", json('"n":1')[:-1], "expected another"),
    ("json", json('"n":1') + "\0more", "a zero byte in"),
]


def fifo(path):
    os.mkfifo(path)


def directory(path):
    os.mkdir(path)


# What stands where a module should, the option, and what is said of it.
ODD_FILES = [
    (fifo, "m.yang", "not a regular file"),
    (fifo, ".", "no YANG module"),
    (directory, "m.yang", "no YANG module"),
    (directory, ".", "no YANG module"),
    (None, "/dev/zero", "not a regular file"),
]


def write(path, text):
    with open(path, "wb") as file:
        file.write(text if isinstance(text, bytes) else text.encode())


def play(confsim, files, yang, script, said):
    """The complaint if the outcome is another one."""
    with tempfile.TemporaryDirectory() as work:
        for name, content in files.items():
            path = os.path.join(work, name)
            content(path) if callable(content) else write(path, content)
        write(os.path.join(work, "session"), script + "\n")
        command = [confsim, "run", "--yang", yang, "--ignore-exit", "--script", "session", "--", "true"]
        done = subprocess.run(command, cwd=work, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        output = done.stdout.decode(errors="replace")
        if said is THROUGH:
            as_told = done.returncode == 0
        else:
            refusals = [line for line in output.splitlines()
                        if line.startswith(("confsim: ", "error: ")) and said in line]
            as_told = done.returncode in (1, 2) and refusals and "parser error" not in output
        if as_told:
            return ""
        shown = "\n".join(line[:300] for line in output.splitlines()[-8:])
        return f"status {done.returncode}, wanted {said!r}, of {str(files)[:200]}:\n{shown}\n"


def main():
    confsim = os.path.abspath(sys.argv[1])
    sessions = [({"m.yang": body if body.startswith("module") else module(body)}, "m.yang", script, said)
                for body, script, said in MODULES
                # With a sanitizer there is no limit to the memory, only one to the time.
                if said != TOO_BIG or "sanitized" not in sys.argv]
    sessions += [({"m.yang": DATA_MODULE, f"d.{kind}": text}, "m.yang", f"load d.{kind}", said)
                 for kind, text, said in DATA]
    sessions += [({"m.yang": make} if make else {}, yang, "", said) for make, yang, said in ODD_FILES]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        complaints = [each for each in pool.map(lambda one: play(confsim, *one), sessions) if each]
    print("\n".join(complaints), end="")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
