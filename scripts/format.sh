#!/usr/bin/env bash
# Checks that every C++ source follows .clang-format; with --fix, rewrites them.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.h' '*.cpp')
if [ "${1:-}" = "--fix" ]; then
  echo "$files" | xargs clang-format -i
else
  echo "$files" | xargs clang-format --dry-run --Werror
  echo "format: $(echo "$files" | wc -l) files clean"
fi
