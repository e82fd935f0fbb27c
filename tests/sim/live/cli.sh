#!/bin/sh
# `oba-evpn-sim live` as a user meets it, without a speaker: cli.sh SIM DATA TMP
#   a configuration that cannot be read is refused before anything runs (file, line, column);
#   a stream that ends is told and started again, the chip kept, and the resynchronisation
#   withdraws what the returned table lacks; what it applied is a scenario that replays cleanly,
#   and its picture is drawn;
#   SIGTERM ends it at once, its stream's child with it.
set -u
sim=$1 data=$2 tmp=$3
fail() { echo "$*"; exit 1; }
rm -rf "$tmp" && mkdir -p "$tmp" || exit 1

printf 'address: 127.0.0.31\nvlans: [{vlan: 10, routeTarget: 65000:10, label: 5000000}]\n' >"$tmp/bad.yaml"
"$sim" live "$tmp/bad.yaml" >/dev/null 2>"$tmp/err"; s=$?
[ $s -eq 2 ] || fail "a bad configuration: exit status $s"
grep -q "bad.yaml:2:50: expected an MPLS label (0-1048575), got '5000000'" "$tmp/err" ||
  fail "a bad configuration: $(cat "$tmp/err")"

cat >"$tmp/live.yaml" <<CONFIG
address: 127.0.0.31
segments:
  - {esi: '00:11:11:11:11:11:11:11:11:01', lag: Port-Channel10, members: [Ethernet1, Ethernet2], label: 'mpls:2001'}
vlans:
  - {vlan: 10, routeTarget: '65000:10', label: 10010}
  - {vlan: 11, routeTarget: '65000:11', label: 10011}
  - {vlan: 12, routeTarget: '65000:12', label: 10012}
CONFIG
# The recorded story as a stream that ends after a second: each return starts from its empty table
# and gives the same routes again.
printf '#!/bin/sh\ncat %s\nsleep 1\n' "$data/monitor-story.json" >"$tmp/stream.sh"
chmod +x "$tmp/stream.sh"
"$sim" live "$tmp/live.yaml" --command "$tmp/stream.sh" --stale-after 0.3 --for 2.5 \
  --record "$tmp/recorded.yaml" --dot "$tmp/live.dot" >"$tmp/log" 2>&1 || fail "the story: exit status $? $(cat "$tmp/log")"
for line in "route not used: VXLAN where MPLS is needed" "stream ended (the stream's command exited with status 0)" \
  "resynchronised, 0 routes" "routes not used: a route of type 5, which is not followed"; do
  grep -q "$line" "$tmp/log" || fail "the story's log lacks '$line'"
done
"$sim" --check --quiet "$tmp/recorded.yaml" 2>"$tmp/err" || fail "the record: $(cat "$tmp/err")"
grep -q "Port-Channel10" "$tmp/live.dot" || fail "the picture lacks the segment"

"$sim" live "$tmp/live.yaml" --command "sleep 31.25" --quiet & pid=$!
sleep 1 && kill -TERM $pid
for _ in 1 2 3 4 5 6 7 8 9 10; do kill -0 $pid 2>/dev/null || break; sleep 0.2; done
kill -0 $pid 2>/dev/null && { kill -KILL $pid; fail "SIGTERM did not end it"; }
wait $pid || fail "SIGTERM: exit status $?"
! pgrep -f "sleep 31.25" >/dev/null || fail "its stream's child outlived it"
exit 0
