#!/usr/bin/env bash
# One command from a fresh clone: install what is missing, build, run the tests.
#   scripts/test.sh            default (optimised) build
#   scripts/test.sh asan       AddressSanitizer + UndefinedBehaviorSanitizer build
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
