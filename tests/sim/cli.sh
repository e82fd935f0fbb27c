#!/bin/sh
# The simulator's command line as a user meets it: cli.sh CASE SIM DATA TMP
#   outputs   --dot and --dot-each that cannot be written are refused before anything runs (exit
#             2, no log), naming the path and the reason
#   verdict   --check ends a scenario with its PASS or FAIL line, an abort and a lost picture too
#   realtime  SIGINT or SIGTERM on a paced run runs the rest at once: exit 0, the whole log
#   why       --why's detail is checked, a pattern keeps only the chains of its lines, and a
#             scenario file after --why is run rather than taken for a pattern
set -u
case_=$1 sim=$2 data=$3 tmp=$4
fail() { echo "$*"; exit 1; }
rm -rf "$tmp" && mkdir -p "$tmp" || exit 1

case $case_ in
outputs)
  # option, path, what the refusal must say
  while IFS='|' read -r opt path why; do
    out=$("$sim" "$opt" "$path" 2>"$tmp/err"); s=$?
    [ $s -eq 2 ] || fail "$opt '$path': exit status $s"
    [ -z "$out" ] || fail "$opt '$path': the scenario ran: $out"
    grep -q -- "$opt '$path': $why" "$tmp/err" || fail "$opt '$path': $(cat "$tmp/err")"
  done <<EOF
--dot||an empty path
--dot-each||an empty path
--dot|/nonexistent/x.dot|No such file or directory
--dot|$tmp|it is a folder
--dot-each|/dev/null|it is not a folder
--dot-each|/proc|no file can be made in it
EOF
  # What can be written is written: a picture to /dev/null, a folder made for the pictures.
  "$sim" --quiet --dot /dev/null --dot-each "$tmp/made/here" || fail "writable outputs refused"
  ls "$tmp/made/here"/00-t0.dot >/dev/null || fail "no pictures in $tmp/made/here"
  # The last picture may go into the folder made for the others.
  "$sim" --quiet --dot-each "$tmp/new" --dot "$tmp/new/final.dot" || fail "--dot in --dot-each's folder"
  [ -s "$tmp/new/final.dot" ] || fail "no picture in $tmp/new/final.dot"
  ;;
verdict)
  "$sim" --check --quiet "$data/unexpected-abort.yaml" 2>"$tmp/err"; s=$?
  [ $s -eq 3 ] || fail "abort: exit status $s"
  tail -n 1 "$tmp/err" | grep -qx "FAIL $data/unexpected-abort.yaml" || fail "abort: $(cat "$tmp/err")"
  "$sim" --check --quiet "$data/wrong-expectation.yaml" 2>"$tmp/err"; s=$?
  [ $s -eq 1 ] && grep -q "^FAIL " "$tmp/err" || fail "wrong expectation: $s $(cat "$tmp/err")"
  "$sim" --check --quiet 2>"$tmp/err" && grep -q "^PASS " "$tmp/err" || fail "pass: $(cat "$tmp/err")"
  ;;
realtime)
  # The built-in scenario's last step is at time 10: paced at one second a second, a signal a
  # second in ends it at once, every step logged.
  for sig in INT TERM; do
    "$sim" --realtime 1 >"$tmp/log" 2>"$tmp/err" &
    pid=$!
    sleep 1
    kill -s $sig $pid
    i=0
    while kill -0 $pid 2>/dev/null; do
      i=$((i + 1))
      [ $i -le 50 ] || { kill -s KILL $pid; fail "SIG$sig: still running 5 s after the signal"; }
      sleep 0.1
    done
    wait $pid; s=$?
    [ $s -eq 0 ] || fail "SIG$sig: exit status $s $(cat "$tmp/err")"
    grep -q "releaseHwTunnelId 1" "$tmp/log" || fail "SIG$sig: the log lost its end: $(cat "$tmp/log")"
  done
  # A pace so slow that the wait would overflow the clock is refused.
  "$sim" --quiet --realtime 1e-10 2>"$tmp/err"; s=$?
  [ $s -eq 2 ] && grep -q "0.001 to 1e6" "$tmp/err" || fail "--realtime 1e-10: $s $(cat "$tmp/err")"
  ;;
why)
  "$sim" --quiet --why=loud 2>"$tmp/err"; s=$?
  [ $s -eq 2 ] && grep -q "brief or full" "$tmp/err" || fail "--why=loud: $s $(cat "$tmp/err")"
  # A pattern keeps the chains of the lines that hold it, and only theirs.
  "$sim" --why 'deleteEsiData Ethernet2' >"$tmp/log" 2>"$tmp/err" || fail "--why PATTERN: $(cat "$tmp/err")"
  grep -B1 "^ *because" "$tmp/log" | grep -v "^ *because\|^--" | grep -v "deleteEsiData Ethernet2" &&
    fail "a chain under a line without the pattern: $(cat "$tmp/log")"
  grep -q '^ *because step [0-9]* "' "$tmp/log" || fail "no step in the chain: $(cat "$tmp/log")"
  # A scenario file after --why is run, not taken for a pattern.
  "$sim" --why "$data/wrong-expectation.yaml" >"$tmp/log" 2>"$tmp/err" || fail "--why FILE: $(cat "$tmp/err")"
  grep -q "^ *because" "$tmp/log" || fail "--why FILE: no chains: $(cat "$tmp/log")"
  ;;
*)
  fail "unknown case $case_"
  ;;
esac
