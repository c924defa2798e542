#!/usr/bin/env bash
# The tutorial's walk-through as one script: two supervisors on this host, each a
# hadra-sysmgrd and a kvstore, records written on the active, the standby brought up by
# gsync, the active killed, the standby taking over with every record.
#
#   pair.sh [program for supervisor 1] [program for supervisor 2]
#
# The programs default to ./build/kvstore for both; either may be kvstore or kvstore-cxx.
# The daemon is hadra-sysmgrd from PATH, or the one HADRA_SYSMGRD names. Everything runs
# under a fresh directory in /tmp, removed at the end with every process started here.
# Exit status 0 when every check held.
set -euo pipefail
prog1="${1:-./build/kvstore}"
prog2="${2:-$prog1}"
sysmgrd="${HADRA_SYSMGRD:-hadra-sysmgrd}"
uuid=0x7e1                                  # the service's identity, the same on both
base="$(mktemp -d /tmp/kvstore-pair-XXXXXX)" # short: socket paths live under it
pids=()
declare -A fd

cleanup() {
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  rm -rf "$base"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

fail() {
  echo "FAIL: $*"
  for f in "$base"/out* "$base"/err*; do [ -s "$f" ] && { echo "--- ${f##*/}"; tail -n 20 "$f"; }; done
  exit 1
}

# daemon <slot> <first role>: the supervisor's root with its settings, and its daemon.
daemon() {
  local slot=$1 root="$base/sup$1"
  mkdir -p "$root"
  printf 'SLOT = %s\nSUPSTATE = %s\nTRANSPORT = zmq\nROLE_SOURCE = manual\n' "$slot" "$2" >"$root/platform.conf"
  "$sysmgrd" --root "$root" >"$base/daemon$slot.log" 2>&1 &
  pids+=($!)
  daemon_pid[$slot]=$!
  for _ in $(seq 100); do
    "$sysmgrd" --root "$root" --command status >/dev/null 2>&1 && return 0
    sleep 0.1
  done
  fail "the daemon of supervisor $slot does not answer"
}

# service <slot> <program>: the service, its commands through a pipe, its answers in a file.
service() {
  local slot=$1
  mkfifo "$base/in$slot"
  HADRA_ROOT="$base/sup$slot" HADRA_UUID=$uuid "$2" <"$base/in$slot" >"$base/out$slot" 2>"$base/err$slot" &
  pids+=($!)
  service_pid[$slot]=$!
  exec {fd[$slot]}>"$base/in$slot"
}

# await <slot> <line>: until the service printed that line (10 s at most).
await() {
  for _ in $(seq 200); do
    grep -qxF "$2" "$base/out$1" && return 0
    sleep 0.05
  done
  fail "supervisor $1 never printed '$2'"
}

# ask <slot> <command>: the answer (list: every record and the summary line).
ask() {
  local out="$base/out$1" from answer
  from=$(($(wc -l <"$out") + 1))
  printf '%s\n' "$2" >&"${fd[$1]}"
  for _ in $(seq 200); do
    answer=$(tail -n "+$from" "$out" | grep -v '^state:' || true)
    if [ -n "$answer" ] && { [ "$2" != list ] || grep -q '^listed:' <<<"$answer"; }; then
      echo "$answer"
      return 0
    fi
    sleep 0.05
  done
  fail "supervisor $1 did not answer '$2'"
}

# expect <slot> <command> <answer>
expect() {
  local got
  got=$(ask "$1" "$2")
  [ "$got" = "$3" ] || fail "supervisor $1, '$2': wanted '$3', got '$got'"
  echo "  sup$1> $2"$'\n'"        $got"
}

echo "== supervisor 1 starts as active and writes records ($prog1)"
daemon 1 active
daemon 2 standby
service 1 "$prog1"
await 1 "state: supervisor active, routes active, peers active"
expect 1 "put routes 10.0.0.0/8 via 192.168.1.1" ok
expect 1 "put routes 10.1.0.0/16 via 192.168.1.2" ok
expect 1 "put routes 10.2.0.0/16 via 192.168.1.3" ok
expect 1 "put peers alice up since monday" ok
expect 1 "put peers bob down" ok
expect 1 "del routes 10.2.0.0/16" ok

echo "== supervisor 2 starts as standby and is brought up by gsync ($prog2)"
service 2 "$prog2"
await 2 "state: supervisor standby, routes standby, peers standby"
expect 2 "put routes 192.168.0.0/16 via 10.0.0.1" "error: routes is standby here; write on the active supervisor"

echo "== changes on the active reach the standby as sync messages"
expect 1 "put routes 172.16.0.0/12 via 192.168.1.4" ok
expect 1 "put peers bob up again" ok
expect 1 "put peers carol up" ok
for _ in $(seq 200); do
  [ "$(ask 2 "get peers carol")" = "peers carol = up" ] && break
  sleep 0.05
done
expect 2 "get peers carol" "peers carol = up"
before=$(ask 1 list)
[ "$(ask 2 list)" = "$before" ] || fail "the standby's records differ from the active's"
echo "$before" | sed 's/^/        /'

echo "== supervisor 1 is killed; supervisor 2 takes over"
# (The shell would report the two deaths on stderr: they are the point of this step.)
{ kill -KILL "${service_pid[1]}" "${daemon_pid[1]}"; wait "${service_pid[1]}" "${daemon_pid[1]}"; } 2>/dev/null || true
takeover=""
for _ in $(seq 100); do   # refused while the daemon still sees its peer up (PEER_DEAD_MS)
  takeover=$("$sysmgrd" --root "$base/sup2" --command takeover 2>&1) && break
  takeover=""
  sleep 0.1
done
[ -n "$takeover" ] || fail "supervisor 2's daemon refused to take over"
grep -q '"known": true' <<<"$takeover" && grep -q '"lost": 0' <<<"$takeover" ||
  fail "the loss report does not say 0 lost: $takeover"
echo "  loss report: 0 lost"
await 2 "state: supervisor active, routes active, peers active"
after=$(ask 2 list)
[ "$after" = "$before" ] || fail "the new active's records differ: wanted"$'\n'"$before"$'\n'"got"$'\n'"$after"
echo "  the new active holds every record: ${after##*$'\n'}"
expect 2 "put routes 192.168.0.0/16 via 10.0.0.1" ok

echo "== supervisor 2 stops"
printf 'quit\n' >&"${fd[2]}"
kill -TERM "${daemon_pid[2]}"
for pid in "${service_pid[2]}" "${daemon_pid[2]}"; do
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -0 "$pid" 2>/dev/null && fail "process $pid did not stop within 10 s"
  wait "$pid" || fail "process $pid stopped with status $?"
done
echo "PASS: the records survived the takeover"
