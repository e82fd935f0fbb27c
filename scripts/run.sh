#!/usr/bin/env bash
# One command from a fresh clone: install what is missing, build, replay the built-in scenario.
# Arguments are passed to oba-evpn-sim (e.g. scripts/run.sh --check scenarios/*.yaml); without
# any, the built-in scenario is told with why each chip call and output write was made (--why).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target oba-evpn-sim >/dev/null
if [ $# -eq 0 ]; then
  exec build/default/bin/oba-evpn-sim --why
fi
exec build/default/bin/oba-evpn-sim "$@"
