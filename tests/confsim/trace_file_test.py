#!/usr/bin/env python3
"""The files that a trace is written to, and what Wireshark makes of them.

trace_file_test.py CONFSIM PLUGIN DISSECTOR TSHARK [unoptimised]
"""
import datetime
import json
import os
import random
import resource
import socket
import struct
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
ODD = "odd peer"  # as the first argument: this is the program beside the plugin

SESSION = f"""\
wait good 30
call echo <a><password>s3cret</password><b>{"<c>x</c>" * 50000}</b></a>
set /test:system/user[name="ann"]/value 5
commit
fail call ask @secret.xml
fail call ask <delete><path>/a:b</path></delete>
set /test:system/user[name="zoe"]/value refuse
fail commit
start odd -- python3 {os.path.abspath(__file__)} "{ODD}"
wait-exit odd 0 30
kickoff good
"""

# Secrets where none belong: each in the form that masking knows.
REQUESTS = [
    "<rpc><method>\"key\" : s3cret</method><params><path>/a:b[c=\"password oldval=s3cret,newval=s3cret\"]"
    "</path><secret>s3cret\ns3cret</secret></params><id>7</id></rpc>",
    "<rpc><method>unfinished s3cret",
    "<reply><error><code>5</code><message>\"password\" : s3cret</message></error><id>4000000000</id></reply>",
    "<other><psk><![CDATA[s3cret]]></psk></other>",
]

FIELDS = ["type", "received", "connection", "peer", "method", "path", "id", "code", "text", "size",
          "request_in", "response_in", "time"]
HEADERS = 88 # of a file
KINDS = ["request", "reply", "notification", "unreadable"]


def be_odd():
    with socket.socket(socket.AF_UNIX) as daemon:
        daemon.connect("/var/tmp/confd.plugin.socket")
        for number, text in enumerate(REQUESTS):
            body = text.encode()
            daemon.sendall(struct.pack("=IIHH", 0xfedcbaff, len(body), number, 0) + body)
        daemon.shutdown(socket.SHUT_WR)
        while daemon.recv(4096):
            pass
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as queue:
        queue.sendto(b"<key>s3cret</key>\xff\0", "/var/tmp/confd.notifier.socket")


def check(condition, *what):
    if not condition:
        sys.exit("trace_file_test: " + " ".join(str(each) for each in what))


def play(script, *options, command=None, **others):
    done = subprocess.run([CONFSIM, "run", "--config", "running.xml", *options, "--", *(command or [PLUGIN, "good"])],
                          input=script, encoding="utf-8", errors="replace", cwd=HERE, check=False, stdout=subprocess.PIPE, **others)
    return done.returncode, done.stdout


def tshark(directory, file, *arguments):
    """Each line that it prints; what goes wrong in the dissector is said in one."""
    done = subprocess.run([TSHARK, "-2", "-X", "lua_script:" + DISSECTOR, "-r", file, *arguments],
                          env={"HOME": directory, "PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8"},
                          capture_output=True, check=False)
    told = (done.stdout + done.stderr).decode(errors="replace")
    check("Lua" not in told, told[told.find("Lua") - 300:][:900])
    return done.stdout.decode(errors="replace").splitlines(), done


def read_lines(file):
    with open(file, encoding="utf-8") as lines:
        return [json.loads(each) for each in lines]


def nanoseconds(text):
    whole, fraction = text.rstrip("Z").split(".")
    seconds = datetime.datetime.fromisoformat(whole + "+00:00").timestamp()
    return int(seconds) * 10**9 + int(fraction)


def check_links(shown, frames):
    """Each reply that answers a request of its connection, and nothing else, is linked to it."""
    linked = 0
    for each, frame in zip(shown, frames):
        if each["request_in"]:
            asked, request = shown[int(each["request_in"]) - 1], frames[int(each["request_in"]) - 1]
            same = ("connection", "id")
            check(frame["type"] == "reply" and request["type"] == "request" and
                  request["direction"] != frame["direction"] and
                  [request[key] for key in same] == [frame[key] for key in same], request, frame)
            check(int(asked["response_in"]) == frame["frame"], asked)
            check(each["method"] == request["method"], each)
            taken = nanoseconds(frame["time"]) - nanoseconds(request["time"])
            check(abs(round(float(each["time"]) * 10**9) - taken) < 1000, each, taken)
            linked += 1
    replies = [frame for frame in frames if frame["type"] == "reply" and frame.get("id") != 4000000000]
    check(linked == len(replies) > 5, linked, "links for", replies)


def check_session(directory):
    files = [os.path.join(directory, "trace." + each) for each in ("jsonl", "pcapng")]
    with open(files[0], "w", encoding="ascii") as file:
        os.fchmod(file.fileno(), 0o644)
        file.write("old")
    status, printed = play(SESSION, *(part for each in files for part in ("--trace-file", each)))
    check(status == 0, status, printed)
    for each in files:
        check(os.stat(each).st_mode & 0o777 == 0o600, each)
        with open(each, "rb") as file:
            content = file.read()
            check(b"s3cret" not in content and b"******" in content, "a secret in", each, content[content.find(b"s3cret") - 200:][:400])

    frames = read_lines(files[0])
    select = [part for each in FIELDS for part in ("-e", "confsvc." + each)]
    lines, done = tshark(directory, files[1], "-T", "fields", *select, "-e", "frame.time_epoch", "-e", "frame.cap_len",
                         "-e", "confsvc.damaged", "-e", "frame.protocols", "-e", "frame.packet_flags_direction")
    check(done.returncode == 0 and len(lines) == len(frames), len(lines), len(frames), done.stderr)
    shown = []
    for number, (line, frame) in enumerate(zip(lines, frames), 1):
        *values, time, length, damaged, protocols, direction = line.split("\t")
        shown.append(dict(zip(FIELDS, values)))
        seen = {key: value for key, value in shown[-1].items() if key in frame and key != "time"}
        seen["type"] = KINDS[int(seen["type"])]
        known = {key: str(frame[key]) for key in FIELDS[:-1] if key in frame}
        check(seen == known, seen, known)
        received = frame["direction"] == "received"
        check(shown[-1]["received"] == str(int(received)) and int(direction, 0) == 2 - received, line)
        check(frame["frame"] == number and nanoseconds(frame["time"]) == int(time.replace(".", "")), line)
        check(not damaged and protocols.endswith("xml") == (frame["body"][:1] == "<"), line, frame)
        check((int(length) == 262144) == (len(frame["body"]) > 262144), line)
    check_links(shown, frames)
    check({frame["type"] for frame in frames} == set(KINDS), "not all types")
    check(sum(len(frame["body"]) > 262144 for frame in frames) == 2, "no long frames")
    check(any(frame.get("code") == 22 and frame["text"] == "this value is refused" for frame in frames), "no refusal")
    texts, _ = tshark(directory, files[1], "-Y", 'confsvc.method == "publish" and confsvc.code == 22')
    wanted = 'plugin "good" -> reply to publish /test:system/user[name="zoe"] id'
    check(len(texts) == 1 and wanted in texts[0] and texts[0].endswith(': error 22 "this value is refused"'), texts)
    return files[1]


def packet(content, size=None):
    """A block of a file; `size` is what the packet is said to have had."""
    padded = content + bytes(-len(content) % 4)
    length = struct.pack("=I", 32 + len(padded))
    return struct.pack("=I4sIQII", 6, length, 0, 0, len(content), size or len(content)) + padded + length


def check_mixed_up(directory, file):
    """Ids count for one direction of one connection, and one reply."""
    frames = [ # request or reply, received or not, connection; the id is always the same. The request.
        (0, 1, 1, ""), (0, 0, 1, ""), (0, 1, 2, ""), (1, 1, 1, "2"), (1, 0, 2, "3"), (1, 0, 1, "1"),
        (1, 0, 1, ""), (1, 1, 2, ""), (0, 0, 1, ""), (1, 1, 1, "9")]
    mixed = os.path.join(directory, "mixed.pcapng")
    with open(file, "rb") as whole, open(mixed, "wb") as made:
        made.write(whole.read(HEADERS))
        for kind, received, connection, _ in frames:
            made.write(packet(struct.pack(">HH8sHHBBBBIIiI8x", 12, 8, b"confsvc", 0, 0,
                                          1, kind, received | 2, 0, connection, 7, 0, 0)))
    lines, _ = tshark(directory, mixed, "-T", "fields", "-e", "confsvc.request_in")
    check(lines == [each[3] for each in frames], lines)


def check_damage(directory, file):
    """A file cut anywhere, and one with packets in each of which something is wrong."""
    with open(file, "rb") as whole:
        content = whole.read()
    blocks, at = [], 0
    while at < len(content):
        size = struct.unpack_from("=I", content, at + 4)[0]
        blocks.append(content[at:at + size])
        at += size
    draw = random.Random(7)
    wrong = os.path.join(directory, "wrong.pcapng")
    count = 1000
    with open(wrong, "wb") as made:
        made.write(b"".join(blocks[:2]))
        for _ in range(count):
            block = draw.choice([each for each in blocks[2:] if len(each) < 2000])
            size = struct.unpack_from("=I", block, 20)[0]
            changed = bytearray(block[28:28 + size])
            for _ in range(draw.choice((0, 1, 4))):
                changed[draw.randrange(16, min(size, draw.choice((40, 2000))))] = draw.randrange(256)
            made.write(packet(changed[:draw.randrange(16, size)] if draw.random() < 0.5 else changed, size))
    lines, done = tshark(directory, wrong, "-V")
    check(sum(each.startswith("Frame ") and "bytes on wire" in each for each in lines) == count, done.stderr)
    check(sum("Expert Info" in each and "no whole frame" in each for each in lines) > count // 10, "damage is not told")
    with open(wrong, "wb") as made:
        made.write(content[:len(content) - 50])
    lines, _ = tshark(directory, wrong)
    check(len(lines) == len(blocks) - 3, len(lines), "of", len(blocks) - 2)


def check_trouble(directory):
    """What keeps a trace from being written: said once, and the session goes on."""
    files = [os.path.join(directory, "short." + each) for each in ("jsonl", "pcapng")]
    options = [part for each in files for part in ("--trace-file", each)]
    limit = 3000
    status, printed = play("wait good 30\n" + "call echo <a/>\n" * 10 + "kickoff good\n", *options,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit)))
    check(status == 0 and all(printed.count(f"warning: the trace in {each} ends here") == 1 for each in files), printed)
    check(printed.count("File too large") == 2, printed)
    count = len(read_lines(files[0]))
    lines, done = tshark(directory, files[1])
    check(count > 3 and len(lines) > 3 and done.returncode == 0, count, lines, done)

    place = os.path.join(directory, "place")
    os.mkdir(place)
    status, printed = play("wait good 30\nkickoff good\n", "--trace-file", place + "/a.jsonl",
                           command=["sh", "-c", 'rm -r "$0" && exec "$1" good', place, PLUGIN])
    check(status == 0 and printed.count("is lost: the file was removed") == 1, printed)
    for wrong, expected in ("trace.txt", 2), (".jsonl", 2), ("/nothing/there.jsonl", 1):
        status, printed = play("", "--trace-file", wrong, command=["true"], stderr=subprocess.DEVNULL)
        check(status == expected, wrong, status, printed)


def check_cost(directory):
    """With both files, a session costs at most twice the processor time."""
    script = "wait good\nrepeat 200\n" + "".join(
        f'set /test:system/user[name="ann"]/value {value}\ncommit\ncall echo <a><key>x</key></a>\n' for value in (5, 6)) + "end\n"
    writing = [part for each in (".jsonl", ".pcapng") for part in ("--trace-file", directory + "/cost" + each)]
    least, ratio, rounds = {}, 9, 0
    while rounds < 3 or (ratio > 2 and rounds < 12): # what else the machine does makes both dearer
        rounds += 1
        for options in (), writing:
            before = resource.getrusage(resource.RUSAGE_CHILDREN)
            status, printed = play(script, "--ignore-exit", *options)
            after = resource.getrusage(resource.RUSAGE_CHILDREN)
            check(status == 0, printed)
            taken = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
            least[bool(options)] = min(taken, least.get(bool(options), taken))
        ratio = least[True] / least[False]
    print(f"a session with both files costs {ratio:.2f} times one without")
    check(ratio <= 2, ratio)


if sys.argv[1] == ODD:
    be_odd()
    sys.exit()
CONFSIM, PLUGIN, DISSECTOR, TSHARK = sys.argv[1:5]
with tempfile.TemporaryDirectory() as place_for_all:
    written = check_session(place_for_all)
    check_mixed_up(place_for_all, written)
    check_damage(place_for_all, written)
    check_trouble(place_for_all)
    if "unoptimised" not in sys.argv: # whose costs say nothing
        check_cost(place_for_all)
