#!/usr/bin/env python3
"""What ctest's results say of one processor, and which tests it leaves out.

  results.py --left-out ARCHITECTURE LIST           prints ctest's -E expression
  results.py ARCHITECTURE LIST RESULTS              prints a table, and the tests that were left out, with reasons

LIST has lines "architectures<TAB>test or pattern<TAB>reason"; architectures are "all" or names with commas between them, a
pattern is a regular expression of whole names.
"""

import collections
import sys
import xml.etree.ElementTree as ElementTree


def left_out(architecture, path):
    """Pairs of pattern and reason."""
    pairs = []
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            if line.startswith("#") or not line.strip():
                continue
            architectures, pattern, reason = line.rstrip("\n").split("\t")
            if architectures == "all" or architecture in architectures.split(","):
                pairs.append((pattern, reason))
    return pairs


def report(architecture, pairs, results):
    run = collections.Counter()
    passed = collections.Counter()
    failed = []
    for case in ElementTree.parse(results).getroot().iter("testcase"):
        name = case.get("name")
        room = name.split(".", 1)[0]
        run[room] += 1
        if case.get("status") == "run":
            passed[room] += 1
        else:
            failed.append(name)
    print(f"\n| {architecture} | run | passed |\n| --- | ---: | ---: |")
    for room in sorted(run):
        print(f"| {room} | {run[room]} | {passed[room]} |")
    print(f"| all | {sum(run.values())} | {sum(passed.values())} |\n")
    for name in failed:
        print(f"failed: {name}")
    for pattern, reason in pairs:
        print(f"left out: {pattern}: {reason}")


def main(arguments):
    if arguments[0] == "--left-out":
        patterns = [pattern for pattern, _ in left_out(*arguments[1:])]
        print("^(" + "|".join(patterns) + ")$" if patterns else "^$")
        return
    architecture, path, results = arguments
    report(architecture, left_out(architecture, path), results)


main(sys.argv[1:])
