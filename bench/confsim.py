#!/usr/bin/env python3
"""How the time of confsim's commands grows with the configuration and the number of plugins.

    confsim.py BUILD_DIR

Sizes, and what is compared, take turns in one run, so that what else the machine does hits all of
them alike; medians count. Commands are timed by confsim itself (`seconds` of its answers). Prints a
table with the ratio to the first column, and writes bench-confsim.json.
"""
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "kits/python"))
from confsvc_test import Session  # noqa: E402

SIZES = (1000, 10000, 100000)
ROUNDS = 31
CROWDS = (10, 100, 1000)
MEBIBYTES = (1, 16, 64)
MODULE = """module bench {
  yang-version 1.1; namespace "urn:bench"; prefix bench;
  container top {
    list entry {
      key name;
      leaf name { type string; }
      leaf value { type uint32; }
      leaf text { type string; }
    }
  }
}
"""


class Bench:
    def __init__(self, build, work):
        self.confsim = build / "tools/confsim/confsim"
        self.plugin = build / "bench/confsim_bench_plugin"
        self.floor = build / "bench/confsim_bench_floor"
        self.work = work
        self.module = work / "bench.yang"
        self.module.write_text(MODULE)
        self.rows = []

    def file_of(self, count):
        """A configuration with so many entries."""
        file = self.work / f"{count}.xml"
        if not file.exists():
            entries = "".join(f"<entry><name>e{i}</name><value>{i}</value>"
                              f"<text>what is said of number {i}</text></entry>" for i in range(count))
            file.write_text(f'<top xmlns="urn:bench">{entries}</top>')
        return file

    def session(self, *words, **more):
        return Session([self.plugin, *words], log=os.devnull, confsim=self.confsim, **more)

    def add(self, name, unit, columns, values, goal=None):
        """A row with the median of each column, and its ratio to the first."""
        scale = {"us": 1e6, "ms": 1e3, "s": 1, "": 1}[unit]
        medians = [statistics.median(each) * scale for each in values]
        ratios = [each / medians[0] for each in medians]
        self.rows.append({"name": name, "unit": unit, "columns": columns, "medians": medians,
                          "ratios": ratios, "goal": goal})
        cells = "".join(f"{column:>10} {value:>10.4g} {ratio:>7.2f} x"
                        for column, value, ratio in zip(columns, medians, ratios))
        print(f"{name:28} {unit:3} {cells}   {f'goal {goal}' if goal else ''}", flush=True)


def in_turn(rounds, contenders, play):
    """samples[row][column]: play(contender, round) gives a dictionary of rows."""
    samples = {}
    for turn in range(rounds):
        for column, contender in enumerate(contenders):
            for row, value in play(contender, turn).items():
                samples.setdefault(row, [[] for _ in contenders])[column].append(value)
    return samples


def entry(number, leaf=""):
    return f'/bench:top/entry[name="e{number}"]{leaf}'


def large_lists(bench, suffix="", **options):
    sessions = [(size, bench.session("one", plugin="one", config=bench.file_of(size), **options))
                for size in SIZES]

    def asked(daemon, operation, size):
        path = entry(size // 2).replace('"', "")
        answer = daemon.call(operation, f"<path>{path}</path><times>20</times>")
        return float(answer.xpath("//us")[0]) * 1e-6

    def play(contender, turn):
        size, daemon = contender
        number = turn * (size // ROUNDS)
        took = {"set": daemon.set(entry(number, "/value"), turn + size).seconds,
                "diff of one change": daemon.send("diff").seconds,
                "commit of one change": daemon.commit().seconds,
                "pull of one entry": asked(daemon, "pull", size),
                "locate": asked(daemon, "locate", size),
                "delete": daemon.erase(entry(number)).seconds}
        daemon.discard()
        return took

    for name, values in in_turn(ROUNDS, sessions, play).items():
        bench.add(name + suffix, "us", SIZES, values, 3)
    for _, daemon in sessions:
        daemon.kickoff("one")
        daemon.close()


def modelled_lists(bench):
    large_lists(bench, ", --yang", yang=bench.module)


def stores(bench):
    """A store writes the whole at each commit."""
    sessions = [(size, bench.session("one", plugin="one", config=bench.file_of(size),
                                     options=["--store", bench.work / f"store{size}"]))
                for size in SIZES]

    def play(contender, turn):
        size, daemon = contender
        daemon.set(entry(turn, "/value"), turn + size)
        return {"commit, --store": daemon.commit().seconds}

    for name, values in in_turn(5, sessions, play).items():
        bench.add(name, "us", SIZES, values)
    for _, daemon in sessions:
        daemon.kickoff("one")
        daemon.close()


def files(bench):
    bytes_of_entry = bench.file_of(SIZES[-1]).stat().st_size / SIZES[-1]
    for size in MEBIBYTES:
        file = bench.file_of(round(size * (1 << 20) / bytes_of_entry))

        def alone(*words):
            done = subprocess.run([bench.floor, *words], capture_output=True, text=True, check=True)
            return [float(each) for each in done.stdout.split()]

        def served(yang):
            with Session(["sleep", "1000"], log=os.devnull, confsim=bench.confsim, yang=yang,
                         options=["--ignore-exit"]) as daemon:
                took = daemon.load(file).seconds, daemon.show(store="candidate").seconds
            return took

        contenders = {"libxml2": lambda: alone("xml", file), "confsim": lambda: served(()),
                      "libyang": lambda: alone("yang", file, bench.module),
                      "--yang": lambda: served(bench.module)}

        def play(name, _):
            load, show = contenders[name]()
            return {"load": load, "show": show}

        for name, values in in_turn(3 if size > 1 else 7, list(contenders), play).items():
            bench.add(f"{name} {size} MiB", "s", list(contenders)[:2], values[:2], 3)
            bench.add(f"{name} {size} MiB, model", "s", list(contenders)[2:], values[2:], 3)


def crowds(bench):
    sessions = []
    registration = []
    for count in CROWDS:
        begin = time.monotonic()
        daemon = bench.session("many", count, options=["--ignore-exit"])
        for number in range(1, count + 1):
            daemon.wait(f"p{number}", 120)
        registration.append([(time.monotonic() - begin) / count])
        sessions.append((count, daemon))

    def play_all(contender, turn):
        count, daemon = contender
        daemon.set("/bench:all", turn)
        return {"commit for all, of each": daemon.commit().seconds / count}

    def play_one(contender, turn):
        count, daemon = contender
        number = 1 + turn % 10 * count // 10  # as many as there are in the smallest crowd
        daemon.set(f"/bench:p{number}/s3", turn)
        return {"commit for one": daemon.commit().seconds}

    bench.add("registration, of each", "us", CROWDS, registration, 2)
    for play in play_all, play_one:  # apart, as a thousand processes that wake up disturb the other
        for name, values in in_turn(ROUNDS, sessions, play).items():
            bench.add(name, "us", CROWDS, values, 2)
    for _, daemon in sessions:
        daemon.send("kickoff")
        daemon.close()


def reports(bench):
    """A session with everything that can be written on, beside one with nothing."""
    script = bench.work / "session.confsim"
    script.write_text("wait one 30\nrepeat 200\ncase changes\n"
                      f"set {entry(1, '/value')} 5\ncommit\n"
                      f"call pull <path>{entry(1)}</path><times>5</times>\nexpect us\n"
                      f"delete {entry(1)}\ncommit\nend\nend\nkickoff one\n")
    everything = ["--strict", "--log", "--slow", "10"]
    for option, name in (("--report", "junit:r.xml"), ("--report", "tap:r.tap"),
                         ("--trace-file", "t.jsonl"), ("--trace-file", "t.pcapng")):
        kind, _, file = name.rpartition(":")
        everything += [option, (kind + ":" if kind else "") + str(bench.work / file)]

    def play(options, _):
        begin = time.monotonic()
        subprocess.run([bench.confsim, "run", *options, "--script", script, "--", bench.plugin, "one"],
                       stdout=subprocess.DEVNULL, check=True)
        return {"session": time.monotonic() - begin}

    (values,) = in_turn(9, [[], everything], play).values()
    bench.add("session of 200 cases", "s", ("plain", "reports"), values, 2)


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    with tempfile.TemporaryDirectory() as work:
        bench = Bench(build, pathlib.Path(work))
        for part in (large_lists, modelled_lists, crowds, reports, stores, files):
            part(bench)
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    facts = {"cpu": cpu[1] if cpu else "", "processors": os.cpu_count(), "load": os.getloadavg()}
    result = build / "bench-confsim.json"
    result.write_text(json.dumps({"machine": facts, "rows": bench.rows}, indent=1) + "\n")
    print(f"\nload average {facts['load'][0]:.1f}; {result}")


if __name__ == "__main__":
    main()
