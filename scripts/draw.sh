#!/usr/bin/env bash
# Draws a scenario's forwarding state after the agent's start and after each step, as SVG
# pictures rendered by Graphviz's dot (oba-evpn-sim --dot-each, then dot -Tsvg).
#   scripts/draw.sh [SCENARIO [OUTDIR]]    the built-in typical event, into build/pictures
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v dot >/dev/null; then
  echo "draw: Graphviz's dot is not installed (scripts/deps.sh installs it)" >&2
  exit 2
fi
scenario="${1:-}"
out="${2:-build/pictures}"
cmake --preset default >/dev/null
cmake --build --preset default --target oba-evpn-sim >/dev/null
rm -rf "$out/dot"
build/default/bin/oba-evpn-sim --quiet --dot-each "$out/dot" ${scenario:+"$scenario"}
for f in "$out"/dot/*.dot; do
  svg="$out/$(basename "${f%.dot}").svg"
  dot -Tsvg "$f" -o "$svg"
  echo "$svg"
done
