#!/usr/bin/env bash
# First command of the README: installs what is missing, configures and builds
# the default preset, and runs the tour.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default
cmake --build --preset default -j"$(nproc)" --target tour
build/default/examples/tour/tour
