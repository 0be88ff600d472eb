#!/usr/bin/env bash
# Second command of the README: installs what is missing, then builds and runs
# the whole test suite in every configuration (default, ASan+UBSan, TSan,
# i386, and the fuzz smoke runs), runs the default suite once more in checked
# mode (ZVKIT_CHECKS=1, configuration "checks"), and ends with one summary
# line. The default configuration's tests include the consumer tests (install,
# move the prefix, build against it with CMake and pkg-config) and the API
# reference build; the TSan configuration's include a TSan-instrumented
# consumer. In checked mode every test must pass unchanged, and report lines
# may come only from the tests listed in tests/checks/reporting-tests.txt.
#
# CONFIGS="default asan" scripts/test-all.sh runs a subset.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh || exit 1

configs=${CONFIGS:-"default asan tsan i386 fuzz checks"}
jobs=$(nproc)

# The screen tests need an X server: a private Xvfb at 1024x768x24.
xvfb_pid=""
for n in $(seq 90 120); do
    if [ ! -e "/tmp/.X$n-lock" ] && [ ! -e "/tmp/.X11-unix/X$n" ]; then
        Xvfb ":$n" -screen 0 1024x768x24 -nolisten tcp >/dev/null 2>&1 &
        xvfb_pid=$!
        export ZVKIT_TEST_DISPLAY=":$n"
        break
    fi
done
cleanup() { [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null; }
trap cleanup EXIT

total_pass=0
total_fail=0
failed_configs=()

# build NAME PRESET: configures and builds PRESET; false (and counted as a
# failure of NAME) when either step fails.
build() {
    if ! cmake --preset "$2" >/dev/null || ! cmake --build --preset "$2" -j"$jobs"; then
        echo "=== $1: BUILD FAILED ==="
        failed_configs+=("$1(build)")
        total_fail=$((total_fail + 1))
        return 1
    fi
}

# tally NAME LOG RC: adds the counts of ctest's summary line in LOG to the
# totals; NAME fails when RC is not 0, a test failed, or LOG has no summary.
tally() {
    local line failed all
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$2" | tail -n 1)
    failed=$(echo "$line" | sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/')
    all=$(echo "$line" | sed -E 's/.* failed out of ([0-9]+).*/\1/')
    if [ -z "$line" ]; then failed=1; all=1; fi
    total_pass=$((total_pass + all - failed))
    total_fail=$((total_fail + failed))
    if [ "$3" -ne 0 ] || [ "$failed" -ne 0 ]; then
        failed_configs+=("$1")
        [ "$failed" -eq 0 ] && total_fail=$((total_fail + 1))
    fi
}

for cfg in $configs; do
    if [ "$cfg" = checks ]; then
        # The default build, run again with the checked mode on.
        echo "=== checks: build (default preset) ==="
        build checks default || continue
        echo "=== checks: test with ZVKIT_CHECKS=1 ==="
        log="build/default/ctest-checks.log"
        ZVKIT_CHECKS=1 ctest --preset default -j"$jobs" -V > "$log" 2>&1
        rc=$?
        grep -E '^ *[0-9]+/[0-9]+ Test +#|tests passed' "$log"
        python3 scripts/check-reports.py < "$log" || rc=1
        tally checks "$log" "$rc"
        continue
    fi
    echo "=== $cfg: configure and build ==="
    build "$cfg" "$cfg" || continue
    echo "=== $cfg: test ==="
    log="build/$cfg/ctest.log"
    ctest --preset "$cfg" -j"$jobs" 2>&1 | tee "$log"
    tally "$cfg" "$log" "${PIPESTATUS[0]}"
done

echo
if [ ${#failed_configs[@]} -gt 0 ]; then
    echo "Failing configurations: ${failed_configs[*]}"
fi
echo "Configurations run: $configs"
echo "total: $total_pass passed, $total_fail failed"
[ "$total_fail" -eq 0 ]
