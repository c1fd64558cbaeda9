#!/usr/bin/env python3
"""Runs the measuring programs of a build in rounds, and compares who does the same work.

Every round runs each program once, so that what else the machine does hits all of them alike; the
median of the rounds counts. Prints a table, and writes bench.json and bench.svg. The programs are
those called bench_* (Google Benchmark); their benchmarks are named WORK/CONTENDER[/SIZE].
"""
import argparse
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
from html import escape

FLOORS = ("raw", "syslog", "std::string", "stdio")  # what others are compared with, where it does the work
MICROSECONDS = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}
IGNORED = {"process_time", "real_time", "manual_time"}  # parts of names that say what is measured
OWN = "confsvc"


def output_of(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()


def facts(build):
    """What the figures depend on."""
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    cache = (build / "CMakeCache.txt").read_text()
    compiler = re.search(r"CMAKE_CXX_COMPILER:\w+=(.*)", cache)
    kind = re.search(r"CMAKE_BUILD_TYPE:\w+=(.*)", cache)
    return {
        "cpu": f"{cpu[1] if cpu else platform.machine()}, {os.cpu_count()} processors",
        "kernel": platform.release(),
        "compiler": output_of(compiler[1], "--version").partition("\n")[0] + ", " + kind[1],
        "load": " ".join(f"{load:.1f}" for load in os.getloadavg()),
    }


def parts_of(name):
    return [part for part in name.split("/")
            if part not in IGNORED and ":" not in part.replace("::", "")]


def selected_of(program, wanted):
    """The program's names for each WORK/CONTENDER[/SIZE] that is wanted."""
    return [name for name in output_of(program, "--benchmark_list_tests").splitlines()
            if re.search(wanted, "/".join(parts_of(name)))]


def literal(name):
    return re.sub("[.+]", r"[\g<0>]", name)


def expression(names):
    """By which a program selects them."""
    return f"^({'|'.join(map(literal, names))})$"


def run_once(program, selected, seconds, samples, before=None):
    """Adds to samples[(work, size)][contender] what one run of the program measures, with the
    library in the directory `before` in place of its own, if one is given."""
    library = {"LD_LIBRARY_PATH": str(before)} if before else {}
    done = subprocess.run(
        [program, f"--benchmark_filter={selected}", f"--benchmark_min_time={seconds}",
         "--benchmark_format=json"], capture_output=True, text=True, check=False,
        env=os.environ | library)
    if done.returncode != 0 or not done.stdout.strip():
        raise SystemExit(f"{program.name} ended with {done.returncode}: {done.stderr}")
    for line in json.loads(done.stdout)["benchmarks"]:
        if line.get("error_occurred"):
            raise SystemExit(f"{program.name}: {line['name']}: {line['error_message']}")
        parts = parts_of(line["name"])
        work, contender, size = parts[0], parts[1], "/".join(parts[2:])
        if before:
            contender += "-before"
        unit = MICROSECONDS[line["time_unit"]]
        samples.setdefault((work, size), {}).setdefault(contender, []).append(
            (line["real_time"] * unit, line["cpu_time"] * unit))


def instructions_of(program, name, us):
    """What one operation takes in the program's own process, by callgrind: the difference between
    runs of n and 2n operations."""
    count = 128 if us < 1000 else 2
    taken = []
    for iterations in (count, 2 * count):
        done = subprocess.run(
            ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--vgdb=no",
             "--child-silent-after-fork=yes", program,
             f"--benchmark_filter=^{literal(name)}/iterations:"],
            capture_output=True, text=True, check=True,
            env=os.environ | {"CONFSVC_BENCH_ITERATIONS": str(iterations)})
        taken.append(int(re.search(r"Collected : (\d+)", done.stderr)[1]))
    return (taken[1] - taken[0]) / count


def count_instructions(programs, selected, works):
    """Adds them to the rows, but where valgrind would take minutes."""
    rows = {"/".join(filter(None, (work["work"], row["contender"], work["size"]))): row
            for work in works for row in work["contenders"]}
    for program in programs:
        for name in selected[program]:
            short = "/".join(parts_of(name))
            if rows[short]["us"] < 100_000:
                print(f"\rcounting {short:60}", end="", file=sys.stderr, flush=True)
                rows[short]["instructions"] = instructions_of(program, short, rows[short]["us"])
    print(file=sys.stderr)


def digest(samples):
    """The medians, with the quartiles of the real time, and the ratio to the floor."""
    works = []
    for (work, size), contenders in samples.items():
        rows = []
        for name, values in contenders.items():
            real = sorted(value[0] for value in values)
            quartiles = (statistics.quantiles(real, n=4, method="inclusive")
                         if len(real) > 1 else real * 3)
            rows.append({"contender": name, "us": quartiles[1], "low": quartiles[0],
                         "high": quartiles[2],
                         "cpu_us": statistics.median(value[1] for value in values)})
        floor = next((row for key in FLOORS for row in rows if row["contender"] == key), None)
        for row in rows:
            row["ratio"] = row["us"] / floor["us"] if floor else None
        rows.sort(key=lambda row: row["us"])
        works.append({"work": work, "size": size, "floor": floor and floor["contender"],
                      "contenders": rows})
    return sorted(works, key=lambda work: (work["work"] != "round_trip", work["work"],
                                           len(work["size"]), work["size"]))


def title(work):
    if not work["size"].isdigit():
        return f"{work['work']} {work['size']}".strip()
    size = int(work["size"])
    if size >= 1 << 20 and size % (1 << 20) == 0:
        return f"{work['work']} {size >> 20} Mi"
    return f"{work['work']} {size >> 10} Ki" if size >= 1024 and size % 1024 == 0 else \
        f"{work['work']} {size}"


def print_table(works):
    for work in works:
        print(f"\n{title(work):28} {'µs':>11} {'quartiles':>25} {'CPU µs':>11} "
              f"{'x ' + work['floor'] if work['floor'] else '':>10}"
              f"{'instructions' if 'instructions' in work['contenders'][0] else '':>14}")
        for row in work["contenders"]:
            spread = f"{row['low']:.3f} .. {row['high']:.3f}"
            count = f"{row['instructions']:.0f}" if "instructions" in row else ""
            ratio = "" if row["ratio"] is None else f"{row['ratio']:.2f}"
            print(f"  {row['contender']:26} {row['us']:11.3f} {spread:>25} {row['cpu_us']:11.3f} "
                  f"{ratio:>10}{count:>14}")


# ---- the chart -----------------------------------------------------------------------------------

PANEL, LEFT, BAR, TOP, BOTTOM = 470, 150, 18, 44, 42  # pixels


def ticks(most):
    step = next(base * 10 ** power for power in range(-1, 7) for base in (1, 2, 5)
                if most / (base * 10 ** power) <= 5)
    return [step * i for i in range(int(most / step) + 1)]


def panel(work, x, y):
    """One work: a bar for each contender, with its quartiles. What is far slower is cut off."""
    rows = work["contenders"]
    floor = next(row["us"] for row in rows if row["contender"] == work["floor"])
    own = max((row["high"] for row in rows if row["contender"].startswith(OWN)), default=0)
    enough = max(1.5 * own, 4 * statistics.median(row["us"] for row in rows))
    most = min(max(row["high"] for row in rows), enough) / floor
    scale = (PANEL - LEFT - 70) / most
    bottom = y + TOP + BAR * len(rows)
    parts = [f'<text class="title" x="{x + 8}" y="{y + 20}">{escape(title(work))}</text>',
             f'<text class="note" x="{x + 8}" y="{y + 36}">{escape(work["floor"])} takes '
             f'{floor:.3g} µs</text>']
    for tick in ticks(most):
        at = x + LEFT + tick * scale
        parts.append(f'<line class="grid" x1="{at:.1f}" y1="{y + TOP}" x2="{at:.1f}" '
                     f'y2="{bottom + 3}"/><text class="tick" x="{at:.1f}" y="{bottom + 15}">'
                     f'{tick:g}</text>')
    parts.append(f'<text class="tick" x="{x + LEFT + most * scale / 2:.1f}" y="{bottom + 30}">'
                 f'time as a multiple of {escape(work["floor"])}</text>')
    for i, row in enumerate(rows):
        top = y + TOP + BAR * i
        low, at, high = (x + LEFT + min(row[key] / floor, most) * scale
                         for key in ("low", "us", "high"))
        own = row["contender"].startswith(OWN)
        parts.append(
            f'<text class="name{" own" if own else ""}" x="{x + LEFT - 6}" y="{top + 13}">'
            f'{escape(row["contender"])}</text>'
            f'<rect fill="{"#1668a8" if own else "#a9b4bf"}" x="{x + LEFT}" y="{top + 2}" '
            f'width="{at - x - LEFT:.1f}" height="{BAR - 4}"/>'
            f'<line class="spread" x1="{low:.1f}" y1="{top + 9}" x2="{high:.1f}" y2="{top + 9}"/>'
            f'<text class="value{" own" if own else ""}" x="{high + 5:.1f}" y="{top + 13}">'
            f'{row["ratio"]:.2f}</text>')
        if row["ratio"] > most:
            parts.append(f'<path class="cut" d="M{at - 14:.1f} {top + BAR} l5 {-BAR} m4 0 '
                         f'l-5 {BAR}"/>')
    return parts, TOP + BAR * len(rows) + BOTTOM


def chart(works, facts_line):
    parts, heights = [], [34, 34]
    for work in works:
        if work["floor"] and len(work["contenders"]) > 1:
            column = heights.index(min(heights))
            drawn, height = panel(work, column * PANEL, heights[column])
            parts += drawn
            heights[column] += height
    style = ("text{font:12px sans-serif;fill:#222}.title{font-weight:bold;font-size:14px}"
             ".note,.tick{fill:#666;font-size:11px}.tick{text-anchor:middle}"
             ".name{text-anchor:end}.own{font-weight:bold;fill:#1668a8}"
             ".grid{stroke:#e3e6e9}.spread{stroke:#333;stroke-width:1.5}"
             ".cut{stroke:#fff;stroke-width:2;fill:none}")
    size = f"{2 * PANEL} {max(heights) + 10}"
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {size}" '
            f'width="{2 * PANEL}" height="{max(heights) + 10}"><style>{style}</style>'
            f'<rect width="100%" height="100%" fill="#fff"/><text class="note" x="8" y="20">'
            f'Medians, with quartiles; shorter is better. {escape(facts_line)}</text>'
            + "\n".join(parts) + "</svg>\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("build", type=pathlib.Path, help="build directory")
    parser.add_argument("filter", nargs="?", default=".",
                        help="regular expression of WORK/CONTENDER[/SIZE]")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=0.05,
                        help="least time for each benchmark in each round")
    parser.add_argument("--instructions", action="store_true",
                        help="count those of one operation, too, which takes minutes")
    parser.add_argument("--before", type=pathlib.Path, metavar="DIRECTORY",
                        help="measure the libconfsvc.so.1 in there, too, an earlier state's")
    parser.add_argument("--output", type=pathlib.Path, help="directory (the build directory)")
    options = parser.parse_intermixed_args()
    output = options.output or options.build
    programs = [path for path in sorted(options.build.glob("bench/bench_*"))
                if path.is_file() and os.access(path, os.X_OK)]
    selected = {path: selected_of(path, options.filter) for path in programs}
    programs = [path for path in programs if selected[path]]
    if not programs:
        raise SystemExit("nothing to measure")
    machine = facts(options.build)
    for key, value in machine.items():
        print(f"{key:9} {value}")
    samples = {}
    for number in range(options.rounds):
        for program in programs[:: -1 if number % 2 else 1]:
            print(f"\rround {number + 1} of {options.rounds}: {program.name:24}", end="",
                  file=sys.stderr, flush=True)
            run_once(program, expression(selected[program]), options.seconds, samples)
            if options.before and program.name == f"bench_{OWN}":
                run_once(program, expression(selected[program]), options.seconds, samples,
                         options.before)
    print(file=sys.stderr)
    works = digest(samples)
    if options.instructions:
        count_instructions(programs, selected, works)
    print_table(works)
    output.mkdir(parents=True, exist_ok=True)
    (output / "bench.json").write_text(
        json.dumps({"machine": machine, "rounds": options.rounds, "works": works}, indent=1))
    (output / "bench.svg").write_text(chart(works, f"{machine['cpu']}, {machine['compiler']}"))
    print(f"\n{output}/bench.json, {output}/bench.svg")


if __name__ == "__main__":
    main()
