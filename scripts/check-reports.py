#!/usr/bin/env python3
"""Reads the output of `ctest -V` run with ZVKIT_CHECKS=1 on standard input
and checks that every "ZvKit-CHECK:" line that reached the output came from a
test listed in tests/checks/reporting-tests.txt (a test that exercises a
reported behaviour on purpose). Prints a summary; exits 1 otherwise."""
import os
import re
import sys

here = os.path.dirname(os.path.abspath(__file__))
allowed = set()
with open(os.path.join(here, "..", "tests", "checks", "reporting-tests.txt")) as listing:
    for line in listing:
        line = line.strip()
        if line and not line.startswith("#"):
            allowed.add(line)

names = {}
reports = {}
for line in sys.stdin:
    started = re.match(r"\s*Start\s+(\d+): (\S+)", line)
    if started:
        names[started.group(1)] = started.group(2)
        continue
    output = re.match(r"(\d+): (.*)", line)
    if output and "ZvKit-CHECK:" in output.group(2):
        number = output.group(1)
        reports.setdefault(number, 0)
        reports[number] += 1

unexpected = []
for number, count in sorted(reports.items()):
    name = names.get(number, "test #" + number)
    if name not in allowed:
        unexpected.append((name, count))

total = sum(reports.values())
print(f"checked mode: {total} report line(s) from {len(reports)} test(s) that exercise "
      "reported behaviours on purpose" if not unexpected else
      f"checked mode: report lines from tests not listed in tests/checks/reporting-tests.txt:")
for name, count in unexpected:
    print(f"  {name}: {count} line(s)")
sys.exit(1 if unexpected else 0)
