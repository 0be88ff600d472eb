#!/usr/bin/env bash
# Builds the release preset and prints every benchmark's ratio to its peer
# (median of repeated runs). Pass a subsystem name to run only its benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j"$(nproc)"
shopt -s nullglob
exes=()
for exe in build/release/bench/zvkit_bench_*; do
    if [ $# -eq 0 ] || [[ " $* " == *" ${exe##*zvkit_bench_} "* ]]; then
        exes+=("$exe")
    fi
done
exec python3 bench/ratios.py --repetitions "${REPETITIONS:-7}" "${exes[@]}"
