#!/usr/bin/env python3
"""What confsim answers to programs, compared with the tables of docs/json.md.

json_test.py CONFSIM PLUGIN DOCUMENTATION [ROUTES]

ROUTES is the directory of a model and its data; without, confsim knows no models.
"""
import atexit
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

CONFSIM, PLUGIN, DOCUMENTATION = sys.argv[1:4]
ROUTES = sys.argv[4] if len(sys.argv) > 4 else None
ALWAYS = {"ok", "text", "seconds"}

# A session in which each command succeeds and each that asks a plugin is refused as well.
SESSION = """\
wait good 30
plugins
load running.xml
set /test:system/user[name="ann"]/value 10
diff
commit
show
show /test:system/user
set /test:system/user[name="ann"]/value 2
set /test:system/user[name="zoe"]/value refuse
commit
fail commit
discard
delete /test:system/user[name="ann"]
status /test:journal/good
call echo <a>\u00e9</a>
status /test:journal/good refuse
call ask <delete><path>/a:b</path></delete>
kickoff good
wait-notification 30
notifications
echo text
expect kicked-off
expect-not nothing
expect-match ^<kicked-off/>$
expect-xpath /by-node
expect-message good reply
expect-within 30 echo
expect-log good runs
repeat 0\\nend
case one
end
include /dev/null
sleep 0
trace off
help
set /test:system/log/value die
commit
try expect-exit 3 30
start second -- sleep 100
signal second KILL
wait-exit second KILL 30
quit
""".splitlines()

# One in which a plugin gives no answer.
SILENT = """\
wait good 30
set /test:system/log/value stall
fail commit
kickoff good
""".splitlines()

# One in which confsim goes wrong.
FAULTS = """\
wait good 30
fault good drop
fault off
stop 0
full
full off
unreadable-profile
unreadable-profile off
kill good
restart
chaos 1 0
faults
chaos off
""".splitlines()

# One with a model. Moves and the two notations have fields of their own.
MODELLED = """\
move /routes:routing/preference[destination="10.2.0.0/16"] first
diff
validate
model /routes:routing/gateway
show --json /routes:routing/preference
""".splitlines()
NEED_MODEL = {"move", "validate", "model"}


def check(condition, *what):
    if not condition:
        sys.exit("json_test: " + " ".join(str(each) for each in what))


def documented():
    """The fields of each command, when it succeeds and when a plugin refuses."""
    with open(DOCUMENTATION, encoding="utf-8") as file:
        rows = re.findall(r"^\| `([a-z-]+)` \|([^|]*)\|([^|]*)\|[^|]*\|$", file.read(), re.M)
    return {name: tuple(set(re.findall(r"`(\w+)`", column)) for column in columns)
            for name, *columns in rows}


class Session:
    def __init__(self, *options):
        atexit.register(lambda: self.process.kill())
        self.process = subprocess.Popen([CONFSIM, "run", "--json", *options, "--", PLUGIN, "good", "log"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                        cwd=os.path.dirname(os.path.abspath(__file__)))

    def __call__(self, command):
        self.process.stdin.write(command.replace("\\n", "\n") + "\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def busy(self):
        """Seconds of processor time so far."""
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return sum(map(int, fields[11:13])) / os.sysconf("SC_CLK_TCK")

    def end(self):
        self.process.stdin.close()
        rest = self.process.stdout.read()
        check(rest == "", "more than answers on standard output:", rest)
        return self.process.wait()


def compare_fields(trace):
    sessions = [(Session("--trace-file", trace), SESSION), (Session("--timeout", "0.1"), SILENT),
                (Session("--ignore-exit"), FAULTS)]
    if ROUTES:
        sessions.append((Session("--yang", f"{ROUTES}/routes.yang", "--config",
                                 f"{ROUTES}/routes.xml"), MODELLED))
    seen = {name: (set(), set()) for name in documented()}
    answers = {}
    for session, commands in sessions:
        for command in commands:
            answer = session(command)
            print(command, "->", answer)
            check(ALWAYS <= answer.keys(), "missing in", answer)
            name = command.split()[0]
            if name not in ("fail", "try", "expect-within"):
                seen[name][not answer["ok"]].update(answer.keys() - ALWAYS)
            answers[command] = answers.get(command, []) + [answer]
        check(session.end() == 0, "exit status")
    for name, fields in documented().items():
        check(seen[name] == fields or (name in NEED_MODEL and not ROUTES), name, "has the fields", seen[name], "not", fields)
    listed = {each["name"] for each in answers["help"][0]["data"]}
    check(listed == documented().keys(), "not in both lists:", listed ^ documented().keys())

    refused = answers["commit"][1]
    check(refused["code"] == 22 and refused["text"] == "this value is refused", refused)
    check(refused["path"] == '/test:system/user[name="zoe"]', refused)
    check([(each["ok"], each["rollback"]) for each in refused["data"]] ==
          [(True, False), (False, False), (True, True)], refused)
    died = answers["commit"][2]
    check(not died["ok"] and "code" not in died, died)
    check(answers["fail commit"][0]["code"] == 22, answers["fail commit"])
    check({"plugin": "good", "fault": "kill", "always": False, "times": 1} in
          answers["faults"][0]["data"], answers["faults"])
    if ROUTES:
        moved = '/routes:routing/preference[destination="10.2.0.0/16"]'
        check(answers["diff"][1]["data"] == [{"change": "move", "path": moved, "place": "first"}],
              answers["diff"])
        shown = json.loads(answers["show --json /routes:routing/preference"][0]["data"])
        check(len(shown["routes:routing"]["preference"]) == 3, shown)
    check(answers["call echo <a>\u00e9</a>"][0]["data"] == "<a>\u00e9</a>", "the output of echo")


def compare_frames(trace):
    """The fields of each frame in a trace."""
    with open(DOCUMENTATION, encoding="utf-8") as file:
        rows = re.findall(r"^\| `([a-z]+)` \|([^|]*)\|[^|]*\|$", file.read(), re.M)
    with open(trace, encoding="utf-8") as lines:
        frames = [json.loads(line) for line in lines]
    for kind, plural in ("request", "requests"), ("reply", "replies"), ("notification", "notifications"):
        always = {name for name, where in rows if "all" in where and f"but {plural}" not in where}
        may_be = {name for name, where in rows if plural in where and "all" not in where}
        seen = [each.keys() for each in frames if each["type"] == kind]
        check(set.intersection(*map(set, seen)) >= always, kind, "always has", always)
        check(set.union(*map(set, seen)) == always | may_be, kind, "has", set.union(*map(set, seen)), "not", always | may_be)


def check_control(directory):
    """Two programs beside standard input, which ends before they do."""
    path = os.path.join(directory, "control")
    with socket.socket(socket.AF_UNIX) as abandoned:
        abandoned.bind(path)
    session = Session("--control", path)
    check(session("wait good 30")["ok"], "the plugin is not there")
    clients = [socket.socket(socket.AF_UNIX) for _ in range(3)]
    for client in clients:
        client.connect(path)
    first, second = (client.makefile("rw", encoding="utf-8") for client in clients[:2])

    # One at a time: the second waits until the first has waited, and nobody spins meanwhile.
    for file, command in (first, "sleep 0.5\necho a"), (second, "status /test:journal/good\n# b\n"):
        file.write(command + "\n")
        file.flush()
        time.sleep(0.1)
    clients[2].sendall(b"echo hung up" * 100)
    clients[2].close()
    session.process.stdin.write("echo typed meanwhile\n")
    session.process.stdin.flush()
    begin, busy = time.monotonic(), session.busy()
    check(json.loads(first.readline())["seconds"] >= 0.5, "did not sleep")
    check(session.busy() - busy < (time.monotonic() - begin) / 2, "busy while it waits")
    check(json.loads(session.process.stdout.readline())["ok"], "standard input is not served")
    check(json.loads(first.readline())["ok"], "the line behind it is lost")
    check(json.loads(second.readline())["plugin"] == "good", "the status")
    session.process.stdin.close()
    for size in 10, 1000000:
        first.write("call echo <a>%s</a>\n" % ("x" * size))
        first.flush()
        check(len(json.loads(first.readline())["data"]) == size + 7, "the output of echo")

    taken = subprocess.run([CONFSIM, "run", "--control", path, "--", "true"], check=False,
                           stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    check(taken.returncode == 1 and "it is in use" in taken.stderr, taken)
    second.write("nonsense\nquit\n")
    second.flush()
    check(not json.loads(second.readline())["ok"], "there is a command nonsense")
    check(json.loads(second.readline())["ok"], "did not quit")
    check(session.process.wait() == 0, "exit status")
    check(not os.path.exists(path), "the socket is still there")


with tempfile.TemporaryDirectory(dir="/var/tmp") as place: # which the sandbox covers
    compare_fields(os.path.join(place, "trace.jsonl"))
    compare_frames(os.path.join(place, "trace.jsonl"))
    check_control(place)
