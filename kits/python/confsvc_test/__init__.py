"""Tests of plugins in Python: each method is a command to confsim, and gives its answer.

    from confsvc_test import Session, Refused

    with Session(["./hello"], plugin="hello") as daemon:
        daemon.set("/hello:settings/greeting", "Hi")
        daemon.commit()
        assert daemon.status("/hello:state").xpath("/hello:state/said") == ["Hi"]
        daemon.erase("/hello:settings")
        refused = daemon.commit(may_fail=True)
        assert refused.code == 42 and refused.text == "A greeting is needed."

The plugin and confsim run in a sandbox of their own, so that nothing of this machine is touched and
any number of sessions can go on at once. What both print is on standard error, where pytest shows it
when a test fails. A session belongs to one thread.

With pytest, `pytest_plugins = ["confsvc_test.fixtures"]` in conftest.py brings the fixture `confsim`.

Relies on confsim, which is looked for in $CONFSIM and then in PATH, and its option --json.
"""
import contextlib
import json
import os
import subprocess

__all__ = ["Error", "Failed", "Refused", "Result", "Session"]


class Error(Exception):
    """confsim itself cannot go on: it did not start, or has ended."""


class Failed(AssertionError):
    """A command failed. `result` is its answer."""

    def __init__(self, command, result):
        super().__init__(f"{command}: {result.text}")
        self.result = result


class Refused(Failed):
    """A plugin refused, with `result.code` and `result.text`."""


class Result:
    """The answer to one command. What does not apply is None."""

    def __init__(self, session, answer):
        self._session = session
        self.ok = answer["ok"]  # whether the command succeeded
        self.text = answer["text"]  # what people read; of a refusal the plugin's own text
        self.code = answer.get("code")  # with which a plugin refused
        self.plugin = answer.get("plugin")  # that was asked, or that refused
        self.path = answer.get("path")  # that the command was about, or that was refused
        self.data = answer.get("data")  # XML of nodes, or lists; see confsim-json
        self.seconds = answer["seconds"]  # that the command took

    def __bool__(self):
        return self.ok

    def __repr__(self):
        return f"<{'ok' if self.ok else 'failed'}: {self.text}>"

    def xpath(self, expression):
        """The texts that an XPath finds in the XML of this answer, in their order.

        Only for the last answer of a session, as it is confsim that looks.
        """
        if self._session.last is not self:
            raise ValueError("xpath() looks into the last answer only")
        return self._session.xpath(expression)


class Session:
    """A plugin, served by confsim.

    command    the plugin as a list of words; None for no program at all
    plugin     the name under which it registers; the session begins when it is activated
    config     a file with the configuration at the beginning
    yang       a file or directory of YANG modules, or a list of them
    trace      a file that gets every frame, secrets masked, or a list of them: FILE.jsonl, FILE.pcapng
    options    further options of confsim, such as ["--trace"]
    log        a file for what both print; by default it goes to standard error
    confsim    the program; by default $CONFSIM, or what is in PATH
    patience   seconds for the plugin to be activated
    """

    def __init__(self, command, plugin=None, config=None, yang=(), trace=(), options=(),
                 log=None, confsim=None, patience=30):
        words = [confsim or os.environ.get("CONFSIM", "confsim"), "run", "--json", *options]
        words += ["--config", str(config)] if config else []
        for option, files in ("--yang", yang), ("--trace-file", trace):
            for file in [files] if isinstance(files, (str, os.PathLike)) else files:
                words += [option, str(file)]
        words += ["--", *map(str, command)]
        self.last = None
        try:
            with open(log, "wb") if log else contextlib.nullcontext() as printed:
                self._process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                                 stderr=printed)
        except OSError as why:
            raise Error(f"cannot start {words[0]}: {why}") from why
        try:
            if plugin is not None:
                self.wait(plugin, patience)
        except BaseException:
            self._abandon()
            raise

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if kind is not None:
            self._abandon()  # it is the test's own failure that counts
        else:
            self.close()

    def close(self):
        """Ends the session. Raises Error when the plugin did not end in good order."""
        if self._process is None:
            return
        process, self._process = self._process, None
        process.communicate()
        if process.returncode != 0:
            raise Error(f"confsim ended with status {process.returncode}; see its output")

    def _abandon(self):
        process, self._process = self._process, None
        if process is not None:
            process.communicate()

    def send(self, line, may_fail=False):
        """Carries out a command as one types it. Returns its Result.

        Raises Refused or Failed when it fails, unless it may.
        """
        if "\n" in line or self._process is None:
            raise ValueError("a command is one line, of a session that goes on")
        self.last = None
        try:
            self._process.stdin.write(line.encode() + b"\n")
            self._process.stdin.flush()
            answer = self._process.stdout.readline()
        except BrokenPipeError:
            answer = b""
        if not answer:
            raise Error(f"confsim has ended at: {line}")
        result = Result(self, json.loads(answer))
        self.last = result
        if not result.ok and not may_fail:
            raise (Refused if result.code is not None else Failed)(line, result)
        return result

    def set(self, path, value=None, may_fail=False):
        """Makes the nodes of a path in the candidate; with a value, sets the text of a leaf."""
        return self.send("set " + _words(path, *([] if value is None else [value])), may_fail)

    def erase(self, path, may_fail=False):
        """Removes nodes from the candidate."""
        return self.send("delete " + _words(path), may_fail)

    def move(self, path, where, other=None, may_fail=False):
        """Moves a list entry "first" or "last", or "before" or "after" another one. Needs a model."""
        return self.send("move " + _words(path, where, *([] if other is None else [other])), may_fail)

    def load(self, file, may_fail=False):
        """Takes the candidate from a file."""
        return self.send("load " + _words(os.path.abspath(file)), may_fail)

    def validate(self, may_fail=False):
        """Whether the model allows the candidate."""
        return self.send("validate", may_fail)

    def commit(self, may_fail=False):
        """Puts the candidate in force. `data` has what each plugin was told and answered."""
        return self.send("commit", may_fail)

    def discard(self):
        """Makes the candidate equal to the running configuration."""
        return self.send("discard")

    def show(self, path=None, store="running"):
        """The XML of the running configuration, or of another one."""
        return self.send("show " + _words(store, *([] if path is None else [path])))

    def status(self, path, filter=None, may_fail=False):
        """Asks a plugin for its status. `data` is the XML of the nodes."""
        return self.send("status " + _words(path, *([] if filter is None else [filter])), may_fail)

    def call(self, operation, xml="", may_fail=False):
        """Calls an operation. `data` is the XML of its output."""
        xml = " ".join(xml.split("\n"))
        return self.send(f"call {_words(operation)} {xml}".rstrip(), may_fail)

    def wait(self, plugin, seconds=30):
        """Until a plugin is activated."""
        return self.send(f"wait {_words(plugin)} {seconds}")

    def wait_notification(self, seconds=5, may_fail=False):
        """Until a notification arrives that was not shown yet; `data` is that."""
        return self.send(f"wait-notification {seconds}", may_fail)

    def expect_message(self, plugin, method, xpath=None, value=None, seconds=5, may_fail=False):
        """Until a plugin has sent a message that was not expected before; `data` is its XML."""
        words = [plugin, method] + [each for each in (xpath, value) if each is not None]
        return self.send(f"expect-message {_words(*words)} {seconds}", may_fail)

    def expect_log(self, text, may_fail=False):
        """Until a program has logged a line with a text that was not expected before."""
        return self.send("expect-log " + _words(text), may_fail)

    def fault(self, plugin, *what):
        """Orders a fault, such as fault("hello", "drop"), or "off"."""
        return self.send("fault " + _words(plugin, *what))

    def chaos(self, seed, rate):
        """Draws faults for `rate` percent of frames, requests and commands, until chaos_off()."""
        return self.send(f"chaos {seed} {rate}")

    def chaos_off(self):
        """Nothing goes wrong any more."""
        return self.send("chaos off")

    def stop(self, seconds):
        """The daemon hangs, and stays connected."""
        return self.send(f"stop {seconds}")

    def restart(self, seconds=0):
        """The daemon goes away and comes back."""
        return self.send(f"restart {seconds}")

    def kill(self, plugin):
        """The daemon hangs up on a plugin."""
        return self.send("kill " + _words(plugin))

    def start(self, name, command):
        """Starts a further program, a list of words, in the sandbox."""
        return self.send(f"start {_words(name)} -- {_words(*command)}")

    def signal(self, program, which):
        """Sends a signal to a program."""
        return self.send("signal " + _words(program, which))

    def wait_exit(self, program, status=0, seconds=30, may_fail=False):
        """Until a program ends with a status, or by a signal whose name is given."""
        return self.send(f"wait-exit {_words(program, status)} {seconds}", may_fail)

    def kickoff(self, plugin):
        """Kicks a plugin off, which ends it in good order."""
        return self.send("kickoff " + _words(plugin))

    def xpath(self, expression):
        """The texts that an XPath finds in the last answer, or in the running configuration."""
        before = self.last
        found = self.send("expect-xpath " + _words(expression), may_fail=True)
        self.last = before
        if found.data is None:
            raise Failed(expression, found)
        return found.data


def _words(*words):
    """Words as confsim reads them, whatever they hold."""
    escaped = (str(each).replace("\\", "\\\\").replace('"', '\\"') for each in words)
    return " ".join(f'"{each}"' for each in escaped)
