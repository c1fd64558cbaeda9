#!/usr/bin/env python3
"""The kit for Python: each method of a session against the test plugin, as kit.cpp does it in C++; and
whether both kits have the same names, which are those of commands.

kit_test.py CONFSIM PLUGIN RUNNING KITS COMMANDS
"""
import pathlib
import re
import sys
import tempfile

CONFSIM, PLUGIN, RUNNING, KITS, COMMANDS = sys.argv[1:6]
sys.path.insert(0, f"{KITS}/python")
sys.dont_write_bytecode = True
from confsvc_test import Error, Failed, Refused, Session  # noqa: E402

LOG = tempfile.NamedTemporaryFile()
ANN = '/test:system/user[name="ann"]'


def check(condition, *what):
    if not condition:
        sys.exit(f"kit_test: {what}")


def fails(kind, call, *words, **named):
    try:
        call(*words, **named)
    except kind as why:
        return why
    sys.exit(f"kit_test: {call} did not fail")


def served():
    return Session([PLUGIN, "good", "log"], "good", config=RUNNING, options=["--log"],
                   log=LOG.name, confsim=CONFSIM)


def check_commands():
    with served() as daemon:
        daemon.set(f"{ANN}/value", 7)
        check(daemon.commit().ok, "commit")
        check(daemon.show(f"{ANN}/value").xpath("/test:value") == ["7"], "show")
        check(daemon.erase(ANN).data == 1, "erase")
        daemon.discard()
        daemon.load(RUNNING)
        daemon.discard()
        check(daemon.call("echo", "<a>1</a>").data == "<a>1</a>", "call")
        check(daemon.status("/test:journal/good").plugin == "good", "status")
        check(daemon.expect_message("good", "register", "//plugin-name", "good").plugin == "good", "message")
        check("good runs" in daemon.expect_log("good runs").data, "log")
        fails(Failed, daemon.validate)
        fails(Failed, daemon.move, ANN, "first")
        check(not daemon.wait_notification(0, may_fail=True), "notification")
        daemon.start("more", ["sh", "-c", "exit 3"])
        daemon.wait_exit("more", 3)
        daemon.start("lasting", ["sleep", 100])
        daemon.signal("lasting", "KILL")
        daemon.wait_exit("lasting", "KILL")
        daemon.kickoff("good")
    check(b'> kickoff "good"' in LOG.read(), "the log")


def check_faults():
    daemon = served()
    daemon.set('/test:system/user[name="zoe"]/value', "refuse")
    refused = fails(Refused, daemon.commit).result
    check((refused.code, refused.text) == (22, "this value is refused"), refused)
    daemon.discard()
    daemon.fault("good", "split", 5)
    daemon.call("echo")
    daemon.chaos(1, 0)
    daemon.chaos_off()
    daemon.stop(0)
    daemon.restart(0.1)
    daemon.start("again", [PLUGIN, "again"])
    daemon.wait("again")
    daemon.kill("again")
    daemon.close()
    fails(ValueError, daemon.commit)
    fails(Failed, Session, ["true"], "nobody", confsim=CONFSIM, patience=1)
    fails(Error, Session, ["true"], confsim="/nothing/there")
    fails(Error, Session, ["true"], log="/nothing/there", confsim=CONFSIM)
    fails(Error, Session(["sh", "-c", "exit 3"], confsim=CONFSIM).close)


def check_names():
    own = {"send", "close", "xpath"}  # which are no commands
    called = {"delete": "erase", "chaos": "chaos", "chaos_off": "chaos"}
    python = {name for name in vars(Session) if not name.startswith("_")} - own
    header = pathlib.Path(KITS, "cpp/confsvc_test.hpp").read_text()
    session = header[header.index("class session {"):]
    cpp = set(re.findall(r"^    (?:result|void|std::vector<std::string>) (\w+)\(", session, re.M)) - own
    check(python == cpp, "only one kit has", python ^ cpp)
    commands = set(re.findall(r"^\| `([a-z-]+)` \|", pathlib.Path(COMMANDS).read_text(), re.M))
    known = {called.get(name, name.replace("-", "_")) for name in commands}
    check(python - {"chaos_off"} <= known, "no commands:", python - known)


check_names()
check_commands()
check_faults()
