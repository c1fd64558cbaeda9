#!/usr/bin/env python3
"""Types on a terminal of its own what people type: keys that complete and recall, and mistakes.

usage: terminal_test.py CONFSIM
"""

import os
import pty
import re
import select
import stat
import subprocess
import sys
import tempfile
import termios
import time

PATIENCE = 60  # that something comes at all, on a busy machine, too
PROMPT = "confsim> "
RED = "\x1b[1;31m"


class Session:
    """confsim on a new terminal, which is given keys when what is expected has appeared."""

    def __init__(self, command, environment, stderr=None):
        self.master, slave = pty.openpty()
        termios.tcsetwinsize(slave, (24, 200))
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=stderr or slave,
                                        env=environment)
        os.close(slave)
        self.seen = ""

    def expect(self, text):
        """Returns what has come since the last time, up to the text."""
        end = time.monotonic() + PATIENCE
        while text not in self.seen:
            left = end - time.monotonic()
            if left <= 0 or not select.select([self.master], [], [], left)[0]:
                sys.exit(f"{text!r} does not come, but {self.seen!r}")
            try:
                self.seen += os.read(self.master, 65536).decode("utf-8", "replace")
            except OSError:
                sys.exit(f"ended without {text!r}: {self.seen!r}")
        before, _, self.seen = self.seen.partition(text)
        return before

    def type(self, keys, answer):
        """Waits for the prompt, types, and waits for the answer; returns what came before it."""
        self.expect(PROMPT)
        os.write(self.master, keys.encode())
        return self.expect(answer)

    def end(self):
        self.type("quit\r", "quit")
        status = self.process.wait(PATIENCE)
        os.close(self.master)
        if status != 0:
            sys.exit(f"exit status {status}")


def check(holds, what):
    if not holds:
        sys.exit(what)


def main():
    with tempfile.TemporaryDirectory() as home:
        test(sys.argv[1], home)


def test(confsim, home):
    command = [confsim, "run", "--", "sleep", "1000"]
    plain = {key: value for key, value in os.environ.items()
             if key not in ("NO_COLOR", "XDG_STATE_HOME")}
    plain |= {"HOME": home, "TERM": "xterm", "LC_ALL": "C.UTF-8"}
    history = os.path.join(home, ".local", "state", "confsim", "history")

    first = Session(command, plain)
    first.type("ech\tcompleted\r", "\ncompleted\r\n")
    first.type('set /demo:box/list[name="a b"]/leaf 1\r', "\nok\r\n")
    first.type("del\t/d\t\t\t\r", "\nok\r\n")  # the only entry: its name has blanks
    first.type("show cand\t\r", "<config/>\r\n")
    first.type("e\t", "expect-within")  # there are several, which are shown
    first.expect("e")
    os.write(first.master, b"cho several\r")
    first.expect("\nseveral\r\n")
    first.type("nonsense\r", f"{RED}error: there is no command nonsense; try help\x1b[0m\r\n")
    first.type("set /demo:box/password hunter2\r", "\nok\r\n")
    first.type("echo kept\r", "\nkept\r\n")
    first.end()
    check(stat.S_IMODE(os.stat(history).st_mode) == 0o600, "the history is open to others")
    with open(history, encoding="utf-8") as file:
        kept = file.read()
    check("echo completed\n" in kept and "hunter2" not in kept, f"kept: {kept}")

    for variable in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
        second = Session(command, plain | variable)
        second.type("\x10\x10\r", "\nkept\r\n")  # the line before quit, recalled
        came = second.type("nonsense\r", "try help")
        check(re.search(r"\nerror: [^\x1b]*$", came), f"coloured in spite of {variable}: {came!r}")
        second.type("echo kept\r", "\nkept\r\n")  # for the next one
        second.end()

    # Each stream counts by itself, and what is no terminal leaves no history.
    script = os.path.join(home, "script")
    with open(script, "w", encoding="utf-8") as file:
        file.write("nonsense scripted\n")
    mixed = Session(command[:2] + ["--script", script] + command[2:], plain, subprocess.PIPE)
    mixed.expect(RED + "error: ")
    errors = mixed.process.communicate(timeout=PATIENCE)[1]
    check(errors.startswith(script.encode() + b":1: there is no command"), f"errors: {errors!r}")
    os.close(mixed.master)
    piped = subprocess.run(command, input=b"echo piped\nnonsense", env=plain, check=False,
                           capture_output=True, timeout=PATIENCE)
    check(b"\x1b" not in piped.stdout + piped.stderr, f"coloured: {piped}")
    with open(history, encoding="utf-8") as file:
        kept = file.read()
    check("piped" not in kept and "scripted" not in kept, f"kept of others: {kept}")

    # A place that cannot be written to is no error.
    third = Session(command, plain | {"XDG_STATE_HOME": "/proc/nowhere"})
    third.type("echo again\r", "\nagain\r\n")
    third.end()


if __name__ == "__main__":
    main()
