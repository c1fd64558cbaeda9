#!/usr/bin/env python3
"""Prints which share of the library's branches the tests took, and the lines with branches that
none took, each with its reason out of tests/uncovered.txt. Fails when the share is below the goal,
when a line has no reason, and when a reason is for a line that does not exist.

usage: coverage.py REPORT      REPORT is what `gcovr --json` wrote, paths relative to the root"""
import collections
import json
import pathlib
import sys

GOAL = 95  # percent
REASONS = "tests/uncovered.txt"
NO_REASON = "NO REASON IS GIVEN:"


def reasons():
    """The reason for each line, which is known by its file and its text."""
    known = {}
    for paragraph in pathlib.Path(REASONS).read_text().split("\n\n"):
        lines = [line for line in paragraph.splitlines() if not line.startswith("#")]
        reason = " ".join(line for line in lines if not line.startswith("  "))
        for line in lines:
            if line.startswith("  "):
                file, _, text = line.strip().partition(": ")
                known[file, text] = reason
    return known


def branches(report):
    """Yields place, source text, branches taken and branches of each line of the library. Those on a
    line of braces only are the compiler's: which way a destructor was reached."""
    for file in json.load(open(report))["files"]:
        source = open(file["file"]).read().splitlines()
        for line in file["lines"]:
            text = source[line["line_number"] - 1].strip()
            counts = [branch["count"] for branch in line["branches"]]
            if counts and text.strip("};"):
                yield file["file"], line["line_number"], text, sum(map(bool, counts)), len(counts)


def main(report):
    taken, known, missed = collections.Counter(), collections.Counter(), {}
    explained = reasons()
    unknown = set(explained)
    for file, number, text, hit, count in branches(report):
        taken[file] += hit
        known[file] += count
        unknown.discard((file, text))
        if hit < count:
            reason = explained.get((file, text), NO_REASON)
            missed.setdefault(reason, []).append(f"  {file}:{number}: {text}")
    for file in sorted(known):
        print(f"{file:40} {taken[file]:5} of {known[file]:5}  {100 * taken[file] / known[file]:5.1f} %")
    share = 100 * taken.total() / known.total()
    print(f"{'branches':40} {taken.total():5} of {known.total():5}  {share:5.1f} %")
    for reason, lines in missed.items():
        print("", reason, *lines, sep="\n")
    for file, text in unknown:
        print(f"{REASONS} knows a line that is not there: {file}: {text}")
    return share < GOAL or NO_REASON in missed or bool(unknown)


sys.exit(main(*sys.argv[1:]))
