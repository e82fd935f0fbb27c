#!/usr/bin/env bash
# The libFuzzer targets (the fuzz preset: clang, ASan + UBSan) over their corpus.
#   scripts/fuzz.sh            every corpus input once, then SECONDS (default 120) of fuzzing
#   scripts/fuzz.sh 3600       an hour of fuzzing; new inputs go to build/fuzz/corpus
# A crash, a sanitizer report, an input that takes over 10 s or 1 GB fails the run; the input is
# left in build/fuzz/ as crash-*, timeout-* or oom-*: fix it and add it to tests/fuzz/corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-120}"
scripts/deps.sh fuzz
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target scenario_fuzz
fuzzer=build/fuzz/bin/scenario_fuzz
limits=(-timeout=10 -rss_limit_mb=1024 -max_len=8192)
# The regression: every input of the corpus and every example scenario, once.
"$fuzzer" "${limits[@]}" -runs=0 tests/fuzz/corpus scenarios
# Then new inputs from them, for a bounded time.
mkdir -p build/fuzz/corpus
"$fuzzer" "${limits[@]}" -dict=tests/fuzz/scenario.dict -max_total_time="$seconds" \
  -artifact_prefix=build/fuzz/ -print_final_stats=1 build/fuzz/corpus tests/fuzz/corpus scenarios
