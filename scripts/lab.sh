#!/usr/bin/env bash
# A small EVPN fabric on this machine's loopback, for the live path (oba-evpn-sim live):
# this switch's BGP speaker and three remote provider edges, all gobgpd, peering l2vpn-evpn.
#
#   scripts/lab.sh [SIM]          the whole story: speakers up, the fabric's routes, the agent
#                                 (SIM, default build/default/bin/oba-evpn-sim) running over
#                                 them, the story's phases a few seconds apart, everything down
#   scripts/lab.sh up DIR         start the speakers (pids, configs and logs in DIR), wait for
#                                 the sessions
#   scripts/lab.sh config DIR     write the agent's local configuration to DIR/live.yaml
#   scripts/lab.sh phase NAME DIR one phase of the story: fabric, dfMoves, macMoves,
#                                 floodLeaves, speakerRestart
#   scripts/lab.sh down DIR       stop every speaker DIR names, by pid
#   scripts/lab.sh bench [MACS]   the speaker's own time to deliver MACS (default 100000) MAC
#                                 routes over 4094 VLANs, beside the agent's (bench/live_routes)
#
# LAB_NET (default 10) places the speakers at 127.0.0.<LAB_NET+1..4>, so that two labs (the
# test's and a person's) do not meet; LAB_PORT (default 11179) is their BGP port, LAB_API
# (default 15051) their API port; LAB_PAUSE (default 0) the seconds between the route changes of
# one phase. For bench: LAB_POLL (default 2) the seconds between two looks at the speaker's table
# (a look slows its intake), LAB_WAIT (default 600) how long it may take. Nothing listens beyond
# 127.0.0.x.
set -euo pipefail
net=${LAB_NET:-10} bgpPort=${LAB_PORT:-11179} apiPort=${LAB_API:-15051} pause=${LAB_PAUSE:-0}
addr() { echo "127.0.0.$((net + $1))"; }  # 1: this switch, 2-4: the remote edges
local_=$(addr 1)
remotes=("$(addr 2)" "$(addr 3)" "$(addr 4)")
esiA=00:11:11:11:11:11:11:11:11:01  # Port-Channel10 here, also on the first two remote edges
esiB=00:22:22:22:22:22:22:22:22:02  # Ethernet3, this switch alone
vlans=(10 11 12)

gobgpOf() { gobgp -u "$1" -p "$apiPort" "${@:2}"; }
evpn() { gobgpOf "$1" global rib -a evpn "${@:2}"; }
# gobgp writes an ESI as its type and nine bytes.
esiArg() { echo "ARBITRARY ${1#00:}"; }

speakerConfig() {  # address, peers...
  local me=$1
  shift
  cat <<EOF
[global.config]
  as = 65000
  router-id = "$me"
  port = $bgpPort
  local-address-list = ["$me"]
EOF
  for p in "$@"; do
    cat <<EOF
[[neighbors]]
  [neighbors.config]
    neighbor-address = "$p"
    peer-as = 65000
  [neighbors.timers.config]
    connect-retry = 1
  [neighbors.transport.config]
    local-address = "$me"
    remote-port = $bgpPort
  [[neighbors.afi-safis]]
    [neighbors.afi-safis.config]
      afi-safi-name = "l2vpn-evpn"
EOF
  done
}

startSpeaker() {  # DIR, name, address
  local dir=$1 name=$2 a=$3
  gobgpd -f "$dir/$name.toml" --api-hosts "$a:$apiPort" -p --pprof-disable >>"$dir/$name.log" 2>&1 &
  echo $! >"$dir/$name.pid"
}

waitFor() {  # seconds, what, command...
  local until=$((SECONDS + $1)) what=$2
  shift 2
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $until ] || { echo "lab: $what: not within the time" >&2; return 1; }
    sleep 0.2
  done
}
established() { [ "$(gobgpOf "$local_" neighbor | grep -c Establ)" -eq 3 ]; }
# A speaker that cannot bind its address (another lab's still there) ends at once.
alive() {  # DIR, names...
  local dir=$1 n
  shift
  sleep 1
  for n in "$@"; do
    kill -0 "$(cat "$dir/$n.pid")" 2>/dev/null || {
      echo "lab: the $n speaker ended at its start: $(tail -1 "$dir/$n.log")" >&2
      return 1
    }
  done
}

up() {
  local dir=$1
  mkdir -p "$dir"
  speakerConfig "$local_" "${remotes[@]}" >"$dir/local.toml"
  for i in 0 1 2; do speakerConfig "${remotes[$i]}" "$local_" >"$dir/edge$((i + 1)).toml"; done
  startSpeaker "$dir" local "$local_"
  for i in 0 1 2; do startSpeaker "$dir" edge$((i + 1)) "${remotes[$i]}"; done
  alive "$dir" local edge1 edge2 edge3
  waitFor 40 "the sessions to come up" established
}

down() {
  local dir=$1 f pid
  for f in "$dir"/*.pid; do
    [ -e "$f" ] || continue
    pid=$(cat "$f")
    kill "$pid" 2>/dev/null || true
    # Gone before the next lab takes its addresses.
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    rm -f "$f"
  done
}

config() {
  cat >"$1/live.yaml" <<EOF
# This switch in the lab fabric (scripts/lab.sh).
address: $local_
segments:
  - {esi: '$esiA', lag: Port-Channel10, members: [Ethernet1, Ethernet2], label: 'mpls:2001'}
  - {esi: '$esiB', intf: Ethernet3, label: 'mpls:2002'}
vlans:
EOF
  for v in "${vlans[@]}"; do
    echo "  - {vlan: $v, routeTarget: '65000:$v', label: $((10000 + v))}" >>"$1/live.yaml"
  done
}

# An edge's inclusive-multicast route for a VLAN: ingress replication to itself, with its label.
imet() {  # add|del, edge index, vlan
  local a=${remotes[$(($2 - 1))]}
  evpn "$a" "$1" multicast "$a" etag 0 rd "$a:$3" rt "65000:$3" encap mpls \
    pmsi ingress-repl "$((1000 * $2 + $3))" "$a"
}
esRoute() {  # add|del, edge index: its Ethernet-segment route for segment A
  local a=${remotes[$(($2 - 1))]}
  # shellcheck disable=SC2046
  evpn "$a" "$1" esi "$a" esi $(esiArg $esiA) rd "$a:1" rt 65000:1 encap mpls
}
adRoute() {  # add, edge index: its per-segment auto-discovery route with the ESI label
  local a=${remotes[$(($2 - 1))]}
  # shellcheck disable=SC2046
  evpn "$a" "$1" a-d esi $(esiArg $esiA) etag 4294967295 label 0 rd "$a:1" rt 65000:1 encap mpls \
    esi-label "$((3000 + $2))"
}
macRoute() {  # add|del, edge index, vlan, mac, label[, esi]
  local a=${remotes[$(($2 - 1))]} esi=()
  # shellcheck disable=SC2207
  [ $# -ge 6 ] && esi=(esi $(esiArg "$6"))
  evpn "$a" "$1" macadv "$4" 0.0.0.0 "${esi[@]}" etag 0 label "$5" rd "$a:$3" rt "65000:$3" encap mpls
}

# This switch's own routes (its speaker would have them from its configuration): the agent leaves
# them alone.
ownRoutes() {
  # shellcheck disable=SC2046
  evpn "$local_" add esi "$local_" esi $(esiArg $esiA) rd "$local_:1" rt 65000:1 encap mpls
}

phase() {
  local name=$1 dir=$2 e v
  case $name in
  fabric)
    ownRoutes
    for e in 1 2; do esRoute add $e; adRoute add $e; done
    for e in 1 2 3; do for v in "${vlans[@]}"; do imet add $e "$v"; done; done
    macRoute add 3 10 02:00:00:00:03:01 6310                 # behind the third edge alone
    macRoute add 1 10 02:00:00:00:0a:01 6110 "$esiA"         # on segment A, through edges 1 and 2
    macRoute add 2 10 02:00:00:00:0a:01 6210 "$esiA"
    macRoute add 1 11 02:00:00:00:01:01 6111
    ;;
  dfMoves)  # the second edge leaves segment A: the VLANs it was forwarder for move
    esRoute del 2 ;;
  macMoves)  # the third edge's host moves behind the first edge
    macRoute add 1 10 02:00:00:00:03:01 6110
    sleep "$pause"
    macRoute del 3 10 02:00:00:00:03:01 6310 ;;
  floodLeaves)  # the third edge leaves VLAN 10's flood list
    imet del 3 10 ;;
  speakerRestart)  # this switch's speaker dies; while it is down the third edge leaves VLAN 11
    # SIGKILL: stopped with SIGTERM, gobgpd first withdraws its peers' routes in the stream, and
    # the agent would take that as the fabric leaving (docs/decisions.md).
    kill -KILL "$(cat "$dir/local.pid")"
    rm -f "$dir/local.pid"
    imet del 3 11
    sleep 1
    startSpeaker "$dir" local "$local_"
    alive "$dir" local
    waitFor 40 "the sessions to come back" established
    ownRoutes
    ;;
  *)
    echo "lab: no phase '$name'" >&2
    return 2
    ;;
  esac
}

story() {
  local sim=${1:-build/default/bin/oba-evpn-sim} dir p
  dir=$(mktemp -d /tmp/oba-lab.XXXXXX)
  labDir=$dir agent=
  trap '[ -n "$agent" ] && kill "$agent" 2>/dev/null; down "$labDir"' EXIT
  echo "lab: speakers in $dir"
  up "$dir"
  config "$dir"
  phase fabric "$dir"
  "$sim" live "$dir/live.yaml" --gobgp-args "-u $local_ -p $apiPort" --stale-after 10 \
    --record "$dir/recorded.yaml" &
  agent=$!
  for p in dfMoves macMoves floodLeaves speakerRestart; do
    sleep 4
    echo "lab: --- $p"
    phase $p "$dir"
  done
  sleep 15
  kill -INT "$agent"
  wait "$agent" || true
  agent=
  echo "lab: the agent's inputs, as a scenario: $dir/recorded.yaml"
}

# This switch's speaker alone, fed by bench/live_feed.py: how long the speaker takes to take in
# MACS routes and its monitor to deliver them, and how long the agent takes for the same lines.
bench() {
  local macs=${1:-100000} vlans=4094 dir feed bin=build/default/bench/live_routes n=0
  dir=$(mktemp -d /tmp/oba-lab-bench.XXXXXX)
  labDir=$dir
  trap 'down "$labDir"; rm -rf "$labDir"' EXIT
  feed=$(addr 5)
  speakerConfig "$local_" "$feed" >"$dir/local.toml"
  startSpeaker "$dir" local "$local_"
  alive "$dir" local
  local start=$SECONDS
  python3 "$(dirname "$0")/../bench/live_feed.py" "$feed" "$local_" "$bgpPort" "$macs" "$vlans" &
  echo $! >"$dir/feed.pid"
  until [ "$n" -ge "$macs" ]; do
    sleep "${LAB_POLL:-2}"
    n=$(gobgpOf "$local_" global rib -a evpn summary | sed -n 's/.*Path: \([0-9]*\).*/\1/p')
    n=${n:-0}
    [ $((SECONDS - start)) -lt "${LAB_WAIT:-600}" ] ||
      { echo "lab: the speaker has $n of $macs routes after ${LAB_WAIT:-600} s" >&2; return 1; }
  done
  echo "lab: the speaker holds $n routes, $((SECONDS - start)) s after the feed started"
  "$bin" --live_world="$macs,$vlans,64" --live_speaker="-u $local_ -p $apiPort"
}

case ${1:-} in
up | down | config) "$1" "$2" ;;
bench) shift; bench "$@" ;;
phase) phase "$2" "$3" ;;
*) story "$@" ;;
esac
