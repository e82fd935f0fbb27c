#!/usr/bin/env bash
# oba-evpn-show against a running simulator, each in its own process:
#   1. a scenario paced to the wall clock and held: a watcher that follows the mapping from the
#      start ends with the rows that `--state` prints, and so does a plain look at it;
#   2. the simulator ends on SIGTERM: its tables are gone, and a look is refused (exit 2);
#   3. a held simulator killed with SIGKILL: a look says the agent is not running (exit 2); the
#      next simulator under the name clears what it left.
# usage: show.sh SIM SHOW SCENARIO WORKDIR
set -euo pipefail
sim=$1 show=$2 scenario=$3 work=$4
agent="showTest$$"
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*"; exit 1; }
pids=()
trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done' EXIT

# Waits (up to 20 s) until FILE holds TEXT.
waitFor() {
  for _ in $(seq 200); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  fail "no '$2' in $1: $(cat "$1" 2>/dev/null)"
}

# 1. Held and watched.
"$sim" --publish "$agent" --hold --realtime 10 --state --quiet "$scenario" >state.txt 2>sim.err &
simPid=$!
pids+=("$simPid")
for _ in $(seq 200); do "$show" "$agent" mapping >/dev/null 2>&1 && break; sleep 0.05; done
"$show" --watch "$agent" mapping >watch.txt &
watchPid=$!
pids+=("$watchPid")
waitFor sim.err "holding the agent '$agent'"
sleep 0.5  # a few of the watcher's polls
kill -TERM "$watchPid"
wait "$watchPid"

# What --state printed: "Tunnel1.1 -> 1" under "mapping tunnelIdToHwTunnelId:".
sed -n '/^mapping tunnelIdToHwTunnelId:/,/^[^ ]/p' state.txt | grep '^    ' | grep -v '(none)' |
  sed 's/^ *//; s/ -> / /' | sort >want.txt
[ -s want.txt ] || fail "the scenario ends with an empty mapping: nothing to compare"
"$show" "$agent" mapping | tail -n +2 | tr -s ' ' | sort >shown.txt
diff want.txt shown.txt || fail "oba-evpn-show mapping differs from --state"
# The watcher's lines replayed: set and del per key, reset empties.
awk '$1 == "set" { rows[$2] = $3 } $1 == "del" { delete rows[$2] } $1 == "reset" { split("", rows) }
     END { for (k in rows) print k, rows[k] }' watch.txt | sort >watched.txt
diff want.txt watched.txt || fail "the watcher's changes do not end in the table"
grep -q '^set ' watch.txt || fail "the watcher saw no change: $(cat watch.txt)"
[ "$("$show" --json "$agent" mapping | grep -c '^{"tunnel":"Tunnel')" = "$(wc -l <want.txt)" ] ||
  fail "--json prints another number of rows"

# 2. A normal end removes the tables.
kill -TERM "$simPid"
wait "$simPid" || fail "the held simulator exited with $?"
ls /dev/shm | grep -q "shoal\.$agent\." && fail "segments left after a normal exit"
set +e
"$show" "$agent" mapping 2>err.txt; status=$?
set -e
[ "$status" = 2 ] && grep -q "no agent '$agent' publishes" err.txt ||
  fail "a look at a gone agent: status $status, $(cat err.txt)"

# 3. A crash leaves them; a look says so; the next start under the name clears them.
"$sim" --publish "$agent" --hold --quiet "$scenario" >/dev/null 2>sim.err &
simPid=$!
pids+=("$simPid")
waitFor sim.err "holding the agent"
kill -KILL "$simPid"
wait "$simPid" || true
set +e
"$show" "$agent" mapping 2>err.txt; status=$?
set -e
[ "$status" = 2 ] && grep -q "is not running" err.txt ||
  fail "a look at a dead agent: status $status, $(cat err.txt)"
"$sim" --publish "$agent" --quiet "$scenario" >/dev/null
ls /dev/shm | grep -q "shoal\.$agent\." && fail "a crashed run's segments outlived the next run"
echo "PASS"
