#!/usr/bin/env python3
"""Runs the scaling benchmarks and prints their growth with size.

Scaling cases are named "Scale/<case>/<size>" and report the time of one
operation in their per_op counter. Each executable runs ROUNDS times in
turn (a change of load on a shared machine then weighs on every round);
for every case the median per_op of the rounds is printed at each size,
with the growth from the smallest size to the largest (the goal is at most
2.0). Cases under "Scale/Peer/" are the same-size baselines.

usage: scaling.py [--rounds N] [--filter REGEX] executable...
"""
import argparse
import json
import statistics
import subprocess
from collections import defaultdict


def run(exe, regex):
    cmd = [exe, "--benchmark_format=json", "--benchmark_min_time=0.1",
           f"--benchmark_filter={regex}"]
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    return json.loads(out)["benchmarks"]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--filter", default="Scale/")
    parser.add_argument("executables", nargs="+")
    args = parser.parse_args()

    samples = defaultdict(list)
    for _ in range(args.rounds):
        for exe in args.executables:
            for bench in run(exe, args.filter):
                if "per_op" not in bench or bench.get("error_occurred"):
                    continue
                case, _, size = bench["name"].rpartition("/")
                samples[(case, int(size))].append(bench["per_op"] * 1e9)

    cases = defaultdict(dict)
    for (case, size), values in samples.items():
        cases[case][size] = statistics.median(values)
    for case in sorted(cases):
        sizes = sorted(cases[case])
        line = "  ".join(f"{size}: {cases[case][size]:.1f}" for size in sizes)
        growth = cases[case][sizes[-1]] / cases[case][sizes[0]]
        print(f"{case:40s} ns/op  {line}  growth {growth:.2f}")


if __name__ == "__main__":
    main()
