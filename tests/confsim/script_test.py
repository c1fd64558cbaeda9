#!/usr/bin/env python3
"""Scripts of confsim that expect what is so and what is not, and the reports on them.

script_test.py script|findings CONFSIM PLUGIN [sanitized]
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as tree

PART, CONFSIM, PLUGIN = sys.argv[1:4]
SANITIZED = "sanitized" in sys.argv
AT_ONCE = 6
HERE = os.path.dirname(os.path.abspath(__file__))

# What is right ends well; what stands behind "-- " must be found, and nothing else. Each line is a
# case of its own.
EXPECTATIONS = r"""
show : expect-xpath /test:system/user[name="ann"]/value 1
show : -- expect-xpath /test:system/user[name="ann"]/value 2
show : -- expect-xpath /system
show : expect-xpath count(//user) 2
show : -- expect-xpath count(//user) 3
show : expect-xpath boolean(//user[value>1])
show : -- expect-xpath boolean(//user[value>2])
show : -- expect-xpath nonsense[
show : expect-xpath //value $TWO
show /test:system/user : expect-xpath /test:user[2]/name 'bob "co" & sons'
commit : expect-xpath /test:system/log/value info
commit : -- expect-xpath /test:system/log/value warn
call echo <a xmlns="urn:x:y"><b xmlns="urn:z">1</b></a><c/> : expect-xpath /y:a/z:b 1
call echo <a xmlns="urn:x:y"><b xmlns="urn:z">1</b></a> : -- expect-xpath /y:a/b
call echo <a/> : -- expect-xpath /test:system
call echo <a>$TWO words, $$TWO, $ 5</a> : expect <a>2 words, $$TWO, $ 5</a>
-- echo $NOTHING
show : expect-match ^\s+<value>\d</value>$
show : -- expect-match ^<value>\d</value>$
show : -- expect-match [
expect-message good register //plugin-name good
-- expect-message good register
-- expect-message other activate 0
-- expect-message good activate //with-cfgr
expect-message good activate 0
status /test:journal/good : expect-message good reply //journal
call ask <locate><path>/test:system/user[name="ann"]</path></locate> : expect-message good locate //path '/test:system/user[name="ann"]' 1
call ask <locate><path>/test:system/user[name="ann"]</path></locate> : -- expect-message good locate //path /nothing 0.1
expect-within 5 sleep 0.01
-- expect-within 0.01 sleep 0.1
-- expect-within 0.1 wait nobody
-- expect-within 5 show /nothing
-- expect-log second runs
start second -- $PLUGIN second log : wait second 30 : expect-log second runs : expect-log Activate plugin second : -- expect-log second runs
-- start second -- true
start writer -- sh -c 'for i in 1 2; do rm -f $LOG; echo no. $$i >$LOG; sleep 0.2; done' : expect-log no. 1 : expect-log no. 2
-- signal third HUP
signal second TERM : wait-exit second TERM 30 : -- signal second TERM
start third -- sh -c 'exit 3' : wait-exit third 3
-- wait-exit third
-- start third true
-- signal second NONSENSE
-- expect-exit 0 0.1
-- fail expect-within 5 show
-- fail case x
-- try repeat 2
-- expect-within 1 end
-- repeat x : end
-- include nothing.confsim
-- case inside : end
"""

# What a plugin does wrong, and what is found then; and what is right though it comes close. Behind
# "x N " stand cases that are repeated.
FINDINGS = r"""
set /test:system/log/value slow : commit -> is slow: publish of /test:system/log took 0.3
set /test:system/log/value fast : commit ->
fault good delay 0.3 : set /test:system/log/value fast : commit ->
fault good duplicate : set /test:system/log/value fine : commit : sleep 0.1 ->
set /test:system/log/value keep : set /test:system/user[name="zoe"]/value refuse : fail commit -> refuses the roll-back of /test:system/log: code 22
set /test:system/log/value fine : set /test:system/user[name="zoe"]/value refuse : fail commit ->
set /test:system/log/value stall : fail commit -> has not answered publish of /test:system/log
start drop -- sh -c ': >/var/tmp/drop' : wait-exit drop : set /test:system/log/value fine : fail commit : sleep 1 -> drops publish of /test:system/log, for it made the request pull
set /test:system/log/value stall : fail commit : start go -- sh -c ': >/var/tmp/go' ->
call echo <send>&lt;reply>&lt;result/>&lt;id>77&lt;/id>&lt;/reply></send> -> sends a reply that answers nothing, with the id 77
call echo <send>&lt;reply>&lt;id></send> -> sends a message that is not well-formed
fail call echo <send>&lt;reply>&lt;id>1&lt;/id>&lt;/reply></send> -> answers publish with neither a result nor an error
call echo <record>lost</record> -> returns 0 from publish, so the error that it recorded is lost: code 24: lost$
call echo <refuse>it</refuse> -> returns 0 from publish, so the error that it recorded is lost: code 26: it is refused$
fail call echo <return/> : call echo <a/> ->
fault good duplicate : fail call echo <return/> : call echo <a/> ->
x 6 call echo <hoard/> -> holds more descriptors after each of 4 cases in a row, now \d+
x 3 call echo <hoard/> ->
x 14 call echo <leak/> -> holds more memory \(in kB\) after each of 8 cases in a row, now \d+
x 14 call echo <a/> ->
"""

# What lines are carried out, by what they echo.
STRUCTURE = """\
wait good 30
echo a
repeat 2
  echo b
  repeat 2
    echo c
  end
  repeat 0
    echo never
  end
  case in each round
    include INCLUDED
    echo never
  end
end
case
end
"""
INCLUDED = """\
case "with # and \\"\\\\"
end
echo d
set /test:system/user[name="ann"]/password s3cret
commit
repeat 2
  repeat 2
    show /test:nothing
    echo never
  end
end
"""


def check(condition, *what):
    if not condition:
        sys.exit("script_test: " + " ".join(str(each) for each in what))


def run(directory, text, *options):
    """Returns the exit status, the lines that failed, the lines printed, and what was reported."""
    script = os.path.join(directory, "script.confsim")
    with open(script, "w", encoding="utf-8") as file:
        file.write(text)
    junit = os.path.join(directory, "junit.xml")
    done = subprocess.run(
        [CONFSIM, "run", "--script", script, "--report", "junit:" + junit, "--timeout", "1",
         "--config", os.path.join(HERE, "running.xml"), *options, "--", PLUGIN, "good", "log"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        check=False)
    print(done.stdout, done.stderr)
    failed = [int(line) for line in re.findall(r"^%s:(\d+):" % re.escape(script), done.stderr, re.M)]
    suite = tree.parse(junit).getroot().find("testsuite")
    return done.returncode, failed, done.stdout.splitlines(), suite


def check_expectations(directory):
    lines, wrong = ["wait good 30"], []
    for number, commands in enumerate(EXPECTATIONS.strip().splitlines()):
        lines.append(f"case {number}")
        for command in commands.split(" : "):
            lines.append(command.removeprefix("-- "))
            if command.startswith("-- "):
                wrong.append(len(lines))
        lines.append("end")
    status, failed, printed, suite = run(
        directory, "\n".join(lines), "-D", "TWO=2", "-D", "PLUGIN=" + PLUGIN,
        "-D", "LOG=/var/log/conf_plugin.log", "--log")
    check(status == 1, "exit status", status)
    check(failed == wrong, "failed:", failed, "instead of:", wrong)
    check("* system log: confsim_plugin: good runs <password>******</password>" in printed, "log")
    check(any(line.startswith("* debug file: ") for line in printed), "debug file")
    check(suite.get("tests") == str(len(EXPECTATIONS.strip().splitlines())), suite.attrib)
    check(suite.get("failures") == str(len(wrong)), suite.attrib)


def check_finding(directory, line, *strict):
    commands, wanted = line.split(" ->")
    repeated = re.fullmatch(r"x (\d+) (.*)", commands)
    lines = (repeated[2] if repeated else commands).split(" : ")
    text = "\n".join(["wait good 30", f"repeat {repeated[1] if repeated else 1}", "case it",
                      *lines, "end", "end"])
    options = ["--slow", "0.2"] if "slow" in line or "fast" in line else []
    with tempfile.TemporaryDirectory(dir=directory) as place:
        status, failed, printed, suite = run(place, text, *options, *strict)
    kind = "error" if strict else "finding"
    found = [each for each in printed if each.startswith(f"* {kind}: ")]
    reported = "".join(each.text for each in suite.iter("system-err"))
    check(status == bool(strict and wanted), line, "exit status", status)
    check(failed == [], line, "failed")
    check(bool(found) == bool(wanted), line, "found", found)
    check(not wanted or re.search(wanted.strip(), found[0]), line, "found", found)
    check(reported == "".join(each.split(": ", 1)[1] + "\n" for each in found), reported)
    check(bool(suite.findall(".//failure")) == bool(strict and wanted), line, "failures")


def check_findings(directory):
    """Each finding is told, and is an error when it is to be. Sessions wait, so some go on at once."""
    rows = [line for line in FINDINGS.strip().splitlines() if not (SANITIZED and "memory" in line)]
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        for each in [pool.submit(check_finding, directory, line, *strict)
                     for line in rows for strict in (["--strict"], [])
                     if strict or line.split(" ->")[1]]:
            each.result()


def check_structure(directory):
    with open(os.path.join(directory, "included"), "w", encoding="utf-8") as file:
        file.write(INCLUDED)
    status, failed, lines, suite = run(directory, STRUCTURE, "-D", "IN=x",
                                       "--report", "tap:" + os.path.join(directory, "tap"))
    check(status == 1 and "never" not in lines, "exit status", status)
    echoed = "".join(line for line in lines if re.fullmatch("[a-d]", line))
    check(echoed == "abccbcc", "carried out:", echoed)
    check(failed == [12, 12, 16], "failed:", failed)
    names = [each.get("name") for each in suite]
    check(names == ["in each round"] * 2 + ["session"], "cases:", names)
    # The file stands beside the script, also when the script is not called INCLUDED.
    text = STRUCTURE.replace("INCLUDED", "included").replace("case in each", "#").replace(
        "    echo never\n  end\nend\ncase\nend\n", "end\n")
    status, failed, lines, suite = run(directory, text)
    echoed = "".join(line for line in lines if re.fullmatch("[a-d]", line))
    check(status == 1 and echoed == "abccd", "carried out:", echoed)
    check([each.get("name") for each in suite] == ['with # and "\\', "session"], "cases")


def check_reports(directory):
    text = INCLUDED.replace("echo d", "case \"\u00e9 #1\"\ncall echo <b>1</b>") + "end\ncase good\nend\n"
    tap = os.path.join(directory, "tap")
    status, failed, _, suite = run(directory, "wait good 30\n" + text, "--report", "tap:" + tap)
    check(status == 1 and failed == [10], "failed:", failed)
    cases = {each.get("name"): each for each in suite}
    failure = cases["\u00e9 #1"].find("failure")
    log = cases["\u00e9 #1"].findtext("system-out")
    check(failure.get("message") == "there is no /test:nothing" and ":10:" in failure.text, failure.text)
    check("> call echo" in log and "--> good" in log and "<b>1</b>" in log, log)
    check("s3cret" not in log, "a secret is reported")
    check(cases["good"].find("failure") is None, "the good case")
    check("--> good" not in cases["good"].findtext("system-out"), "frames of another case")
    with open(tap, encoding="utf-8") as file:
        lines = file.read().splitlines()
    check([line for line in lines if re.match("1|ok|not", line)] ==
          ["1..3", 'ok 1 - with \\# and "\\\\', "not ok 2 - \u00e9 \\#1", "ok 3 - good"], lines)
    logs = [json.loads(line[7:]) for line in lines if line.startswith("  log: ")]
    check("<b>1</b>" in logs[1], "the log")

    # Without cases, all is one; and how the program ends is a part of it.
    for script, program, failures in ("echo", "exit 0", 0), ("fail echo", "exit 0", 1), \
            ("sleep 0.2", "exit 3", 1):
        done = subprocess.run([CONFSIM, "run", "--report", "tap:-", "--", "sh", "-c", program],
                              input=script, stdout=subprocess.PIPE, text=True, check=False)
        check(done.returncode == failures, done)
        check(done.stdout.startswith(f"TAP version 14\n1..1\n{'not ' * failures}ok 1 - session\n"),
              done.stdout)
    done = subprocess.run([CONFSIM, "run", "--report", "tap:/nothing/there", "--", "true"],
                          stderr=subprocess.PIPE, check=False)
    check(done.returncode == 1 and b"cannot write /nothing/there" in done.stderr, done)


PARTS = {"script": (check_expectations, check_structure, check_reports),
         "findings": (check_findings,)}
with tempfile.TemporaryDirectory() as place:
    for each in PARTS[PART]:
        each(place)
