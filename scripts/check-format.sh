#!/usr/bin/env bash
# Fails when a C++ file differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files --cached --others --exclude-standard '*.cpp' '*.h')
else
  mapfile -t files < <(find . -path ./build -prune -o \( -name '*.cpp' -o -name '*.h' \) -print)
fi
existing=()
for f in "${files[@]}"; do [ -f "$f" ] && existing+=("$f"); done
clang-format --dry-run -Werror "${existing[@]}"
