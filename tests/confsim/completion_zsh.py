#!/usr/bin/env python3
"""Asks zsh, on a terminal of its own, what it makes of some beginnings of command lines.

usage: completion_zsh.py ZSH COMPLETIONS CONFSIM
"""

import os
import re
import subprocess
import sys
import tempfile

from terminal_test import Session, check

# Shows what the line is behind the completion, and begins a new one.
SETUP = """
fpath=($COMPLETIONS $fpath)
autoload -Uz compinit && compinit -u -D
zstyle ':completion:*' use-cache no
setopt no_beep no_list_ambiguous
shown() { print -r -- "<$BUFFER>"; BUFFER=; zle reset-prompt }
zle -N shown && bindkey '^I' complete-word '^G' shown
PS1='> ' RPS1= && print -r -- re''ady
"""

CASES = {
    "confsim do": "confsim doctor ",
    "confsim r": "confsim run ",
    "confsim doctor --js": "confsim doctor --json ",
    "confsim doctor --net": "confsim doctor --net",
    "confsim run --net": "confsim run --network ",
    "confsim --config fi": "confsim --config file.xml ",
    "confsim run --store ": "confsim run --store dir/",
    "confsim --timeout 5 do": "confsim --timeout 5 doctor ",
    "confsim --timeout ": "confsim --timeout ",
    "confsim run --trace -- confsi": "confsim run --trace -- confsim ",
}


def options(subcommand):
    """All long options that a page of help has."""
    page = subprocess.run(["confsim", *subcommand.split(), "--help"], check=True, text=True,
                          capture_output=True).stdout
    return re.findall(r"^  (?:-.,)?(--[a-z-]+)", page, re.MULTILINE)


def main():
    zsh, completions, confsim = (os.path.realpath(each) for each in sys.argv[1:])
    os.environ["PATH"] = os.path.dirname(confsim) + ":" + os.environ["PATH"]
    with tempfile.TemporaryDirectory() as work:
        os.chdir(work)
        os.mkdir("dir")
        for name in ("dir/file.xml", "file.xml"):
            with open(name, "w", encoding="utf-8"):
                pass
        environment = os.environ | {"COMPLETIONS": completions, "HOME": work, "TERM": "xterm"}
        shell = Session([zsh, "-f", "-i"], environment)
        os.write(shell.master, SETUP.encode())
        shell.expect("\nready\r\n")

        def completed(line):
            os.write(shell.master, line.encode() + b"\t\x07")
            shell.expect("<")
            return shell.expect(">\r\n")

        for line, wanted in CASES.items():
            came = completed(line)
            check(came == wanted, f"{line!r} becomes {came!r} instead of {wanted!r}")
        for subcommand in ("", "run", "doctor"):
            for option in options(subcommand):
                line = " ".join(["confsim", subcommand, option[:-1]]).replace("  ", " ")
                came = completed(line)
                check(came.startswith(line[:-len(option) + 1] + option), f"{line!r} becomes {came!r}")
        os.write(shell.master, b"exit\r")
        shell.process.wait(60)


if __name__ == "__main__":
    main()
