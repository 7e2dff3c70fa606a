#!/usr/bin/env bash
# Installs what is missing, builds everything with warnings as errors, and runs the tests.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build=${SKELVO_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DSKELVO_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
