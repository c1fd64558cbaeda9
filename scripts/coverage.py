#!/usr/bin/env python3
"""Prints which share of the library's branches the tests took, and compares those that none took
with the list of tests/uncovered.txt: each must stand there with its reason, and nothing else.

usage: coverage.py REPORT LIST      REPORT is what `gcovr --json` wrote, paths relative to the root

A line of the list is "FILE: SOURCE TEXT -- REASON", the source text being that of the line of the
branch without its indentation, so that the list outlives edits above it."""
import collections
import json
import sys

GOAL = 95  # percent


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


def main(report, listing):
    reasons = {}
    for line in open(listing):
        if line.strip() and not line.startswith("#"):
            where, _, reason = line.rstrip("\n").partition(" -- ")
            reasons[where] = reason
    taken, known = collections.Counter(), collections.Counter()
    unlisted, seen = [], set()
    for file, number, text, hit, count in branches(report):
        taken[file] += hit
        known[file] += count
        if hit < count:
            seen.add(f"{file}: {text}")
            if not reasons.get(f"{file}: {text}"):
                unlisted.append(f"{file}:{number}: {text}")
    for file in sorted(known):
        print(f"{file:40} {taken[file]:5} of {known[file]:5}  {100 * taken[file] / known[file]:5.1f} %")
    share = 100 * taken.total() / known.total()
    print(f"{'branches':40} {taken.total():5} of {known.total():5}  {share:5.1f} %")
    stale = reasons.keys() - seen
    for title, lines in (("Not taken, and not in the list:", unlisted),
                         ("In the list, but taken or gone:", sorted(stale))):
        if lines:
            print(title, *lines, sep="\n  ")
    return 1 if unlisted or stale or share < GOAL else 0


sys.exit(main(*sys.argv[1:]))
