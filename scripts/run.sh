#!/usr/bin/env bash
# Installs what is missing, builds, and starts Skelvo (without windows when there is no
# display). Arguments go to skelvo, e.g. --headless.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/setup.sh
build=${SKELVO_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" -j"$(nproc)"
exec "$build/bin/skelvo" "$@"
