#!/usr/bin/env python3
"""Runs benchmark executables and prints each peer's ratio to ZvKit.

Benchmarks are named "<case>:<implementation>" (Google Benchmark may append
"/arg" parts after the implementation). For every case, the median time of
"<case>:zvkit" is divided by the median time of each other implementation:
a ratio below 1.0 means ZvKit is faster. Repetitions of all benchmarks run
in random interleaved order, so that a change of load on a shared machine
weighs on ZvKit and its peers alike.

usage: ratios.py [--repetitions N] [--filter REGEX] executable...
"""
import argparse
import json
import subprocess
import sys


def run(exe, repetitions, regex):
    cmd = [exe, "--benchmark_format=json",
           f"--benchmark_repetitions={repetitions}",
           "--benchmark_report_aggregates_only=true",
           "--benchmark_enable_random_interleaving=true"]
    if regex:
        cmd.append(f"--benchmark_filter={regex}")
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    return json.loads(out)["benchmarks"]


def split(name):
    # "Case:impl/arg/real_time_median" -> ("Case/arg", "impl")
    base = name.rsplit("_median", 1)[0]
    head, _, impl = base.partition(":")
    parts = impl.split("/")
    impl = parts[0]
    rest = "/".join(p for p in parts[1:] if p not in ("real_time", "process_time"))
    return (head + ("/" + rest if rest else ""), impl)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--filter", default="")
    parser.add_argument("executables", nargs="+")
    args = parser.parse_args()

    cases = {}
    for exe in args.executables:
        for bench in run(exe, args.repetitions, args.filter):
            if bench.get("aggregate_name") != "median":
                continue
            case, impl = split(bench["name"])
            cases.setdefault(case, {})[impl] = bench["real_time"], bench["time_unit"]

    print(f"{'case':48} {'peer':24} {'zvkit':>12} {'peer time':>12} {'ratio':>7}")
    for case, impls in sorted(cases.items()):
        if "zvkit" not in impls:
            continue
        mine, unit = impls["zvkit"]
        for impl, (theirs, their_unit) in sorted(impls.items()):
            if impl == "zvkit":
                continue
            ratio = mine / theirs if theirs else float("inf")
            print(f"{case:48} {impl:24} {mine:10.1f}{unit:>2} {theirs:10.1f}{their_unit:>2} {ratio:7.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
