#!/usr/bin/env python3
"""Prints which share of the library's branches the tests took, and the lines with branches that
none took. Fails when the share is below the goal.

usage: coverage.py REPORT      REPORT is what `gcovr --json` wrote, paths relative to the root"""
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


def main(report):
    taken, known, missed = collections.Counter(), collections.Counter(), []
    for file, number, text, hit, count in branches(report):
        taken[file] += hit
        known[file] += count
        if hit < count:
            missed.append(f"  {file}:{number}: {text}")
    for file in sorted(known):
        print(f"{file:40} {taken[file]:5} of {known[file]:5}  {100 * taken[file] / known[file]:5.1f} %")
    share = 100 * taken.total() / known.total()
    print(f"{'branches':40} {taken.total():5} of {known.total():5}  {share:5.1f} %")
    print("lines with branches that none took:", *missed, sep="\n")
    return share < GOAL


sys.exit(main(*sys.argv[1:]))
