#!/usr/bin/env bash
# hadra next to Redis primary -> replica replication, on the same records, in one table.
#   scripts/bench.sh [rounds]            (default 3)
# Environment: HADRA_BENCH_RECORDS (replicated updates per run, default 200000),
# HADRA_BENCH_GSYNC_RECORDS (records of the gsync store, default 1000000),
# HADRA_BENCH_OUT (where the markdown table goes as well, default build-bench/bench.md).
#
# Builds in Release, installs redis-server from Debian's packages when missing, then runs N
# rounds, alternating which side goes first. hadra: bench/bench_pair (two supervisor
# processes on this host over ZeroMQ ipc, LMDB stores on both sides, the DURABILITY setting
# of the caller's environment, default group). Redis: a primary and a replica on 127.0.0.1,
# on private ports, in a scratch directory, without snapshots or append-only file (its
# defaults for a cache; the note under the table says so); always stopped at the end.
# Records: 16-byte keys ("key:" and 12 digits for Redis, random bytes for hadra) and
# 100-byte values.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
rounds="${1:-3}"
records="${HADRA_BENCH_RECORDS:-200000}"
gsync_records="${HADRA_BENCH_GSYNC_RECORDS:-1000000}"
build="$here/build-bench"
out="${HADRA_BENCH_OUT:-$build/bench.md}"

if ! command -v redis-server >/dev/null 2>&1 || ! command -v redis-benchmark >/dev/null 2>&1; then
  echo "== installing redis-server"
  export DEBIAN_FRONTEND=noninteractive
  for try in 1 2 3 4 5 6; do
    apt-get install -y --no-install-recommends redis-server redis-tools && break
    [ "$try" = 6 ] && { echo "bench: redis-server could not be installed" >&2; exit 1; }
    sleep 10  # another installer may hold the dpkg lock
  done
fi

echo "== build (Release) in $build"
HADRA_JOBS="${HADRA_JOBS:-$(nproc)}" "$here/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=Release \
  -DHADRA_BUILD_BENCHMARKS=ON >/dev/null
pair="$build/bench/bench_pair"
stream="$build/bench/stream_bench"

scratch="$(mktemp -d /tmp/hadra-redis-XXXXXX)"
pids=()
stop_redis() {
  local p
  for p in "${pids[@]}"; do
    kill "$p" 2>/dev/null || true
  done
  for p in "${pids[@]}"; do
    for _ in $(seq 50); do kill -0 "$p" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$p" 2>/dev/null || true
  done
  pids=()
}
trap 'stop_redis; rm -rf "$scratch"' EXIT

port=$((21000 + RANDOM % 20000))
# Starts one Redis server on 127.0.0.1:$1 in $scratch/$1, with further arguments; records its pid.
start_redis() {
  local p="$1"
  shift
  rm -rf "${scratch:?}/$p"
  mkdir -p "$scratch/$p"
  redis-server --port "$p" --bind 127.0.0.1 --protected-mode yes --dir "$scratch/$p" --save "" \
    --appendonly no --enable-debug-command local --logfile "$scratch/$p/log" "$@" &
  pids+=("$!")
  for _ in $(seq 100); do
    redis-cli -p "$p" ping >/dev/null 2>&1 && return 0
    sleep 0.05
  done
  echo "bench: Redis on port $p did not start" >&2
  return 1
}
info() { redis-cli -p "$1" info "$2" | tr -d '\r' | sed -n "s/^$3:\(.*\)/\1/p"; }
cpu() { echo "$(info "$1" cpu used_cpu_user) $(info "$1" cpu used_cpu_sys)" | awk '{print $1 + $2}'; }
now() { date +%s.%N; }
# Waits (at most 120 s) until the replica on $2 has everything the primary on $1 has.
wait_replica() {
  local want
  want="$(info "$1" replication master_repl_offset)"
  for _ in $(seq 2400); do
    [ "$(info "$2" replication slave_repl_offset)" = "$want" ] && return 0
    sleep 0.05
  done
  echo "bench: the replica never caught up" >&2
  return 1
}
wait_link() {
  for _ in $(seq 2400); do
    [ "$(info "$1" replication master_link_status)" = up ] &&
      [ "$(info "$1" replication master_sync_in_progress)" = 0 ] && return 0
    sleep 0.05
  done
  echo "bench: the replica never synced" >&2
  return 1
}

# Redis: n SETs pipelined p deep, from the first to the replica's receipt of the last.
# Prints "rate primary_cpu_us replica_cpu_us".
redis_updates() {
  local n="$1" p="$2" prim=$port repl=$((port + 1))
  start_redis "$prim"
  start_redis "$repl" --replicaof 127.0.0.1 "$prim"
  wait_link "$repl"
  local c0 r0 t0 t1 c1 r1
  c0="$(cpu "$prim")" r0="$(cpu "$repl")" t0="$(now)"
  redis-benchmark -h 127.0.0.1 -p "$prim" -t set -n "$n" -r 1000000000000 -d 100 -P "$p" -c 1 -q >/dev/null
  wait_replica "$prim" "$repl"
  t1="$(now)" c1="$(cpu "$prim")" r1="$(cpu "$repl")"
  stop_redis
  awk -v n="$n" -v t="$t1" -v s="$t0" -v a="$c1" -v b="$c0" -v c="$r1" -v d="$r0" \
    'BEGIN { printf "%.0f %.3f %.3f\n", n / (t - s), (a - b) * 1e6 / n, (c - d) * 1e6 / n }'
}

# Redis: full resync of a fresh replica from a primary holding n records; MB/s of payload.
redis_resync() {
  local n="$1" prim=$port repl=$((port + 1))
  start_redis "$prim" --repl-diskless-sync-delay 0
  redis-cli -p "$prim" debug populate "$n" k00000000 100 >/dev/null
  local t0 t1
  t0="$(now)"
  start_redis "$repl" --replicaof 127.0.0.1 "$prim"
  wait_link "$repl"
  t1="$(now)"
  local got
  got="$(redis-cli -p "$repl" dbsize | tr -d '\r')"
  stop_redis
  [ "$got" = "$n" ] || { echo "bench: the replica holds $got of $n keys" >&2; return 1; }
  awk -v n="$n" -v t="$t1" -v s="$t0" 'BEGIN { printf "%.2f\n", n * 116 / (t - s) / 1e6 }'
}

# hadra: one bench_pair run; prints the named fields of its line.
# A run that failed its own checks (the standby did not see every change, a child failed)
# measured something else: its figures are left out ("-") and the table's counts say so.
hadra() {
  local line rc=0 mode="$1"
  line="$("$pair" --mode "$1" --records "$2" 2>>"$scratch/pair.log")" || rc=$?
  shift 2
  local f out=()
  if [ "$rc" -ne 0 ]; then
    echo "bench: bench_pair --mode $mode failed its checks (exit $rc, see $scratch/pair.log); figures left out" >&2
    for f in "$@"; do out+=("-"); done
  else
    for f in "$@"; do out+=("$(echo "$line" | tr ' ' '\n' | sed -n "s/^$f=//p")"); done
  fi
  echo "${out[*]}"
}

# hadra on the daemons (stream_bench: two hadra-sysmgrd and two services): the manual times
# in ms of the cases matching the filter, in the order given, one per case.
stream_ms() {
  local out
  out="$("$stream" --benchmark_filter="$1" --benchmark_format=csv 2>>"$scratch/stream.log" || true)"
  shift
  local c v vals=()
  for c in "$@"; do
    v="$(echo "$out" | awk -F, -v c="$c" 'index($1, c) && $3 != "" && $0 !~ /error_occurred.*true/ { print $3; exit }')"
    vals+=("${v:--}")
  done
  echo "${vals[*]}"
}

declare -A H R  # per row: the values of every round, space separated
add() { eval "$1[\$2]+=\"\$3 \""; }

run_hadra() {
  local v
  v="$(hadra pss "$records" rate active_cpu_us standby_cpu_us active_heap_kib standby_heap_kib)"
  add H pss "${v%% *}"
  add H cpu_a "$(echo "$v" | cut -d' ' -f2)"
  add H cpu_s "$(echo "$v" | cut -d' ' -f3)"
  add H heap_a "$(echo "$v" | cut -d' ' -f4)"
  add H heap_s "$(echo "$v" | cut -d' ' -f5)"
  add H sdb "$(hadra sdb "$records" rate)"
  add H sdb_batch "$(hadra sdb_batch "$records" rate)"
  add H msdb_batch "$(hadra msdb_batch "$records" rate)"
  add H gsync "$(hadra gsync "$gsync_records" mb_per_s)"
  local few=$((records < 5000 ? records : 5000))
  add H pss_none "$(HADRA_DURABILITY=none hadra pss "$records" rate)"
  add H pss_sync "$(HADRA_DURABILITY=sync hadra pss "$few" rate)"
  v="$(stream_ms 'CatchUpAfterOneSecondBreak/./5000/|SwitchoverTenDatabases' /1/5000/ /0/5000/ Switchover)"
  add H catchup_backlog "$(echo "$v" | cut -d' ' -f1)"
  add H catchup_gsync "$(echo "$v" | cut -d' ' -f2)"
  add H switchover "$(echo "$v" | cut -d' ' -f3)"
}
run_redis() {
  local v
  v="$(redis_updates "$records" 64)"
  add R pss "${v%% *}"
  add R cpu_a "$(echo "$v" | cut -d' ' -f2)"
  add R cpu_s "$(echo "$v" | cut -d' ' -f3)"
  v="$(redis_updates "$records" 1000)"
  add R sdb_batch "${v%% *}"
  add R gsync "$(redis_resync "$gsync_records")"
}

for r in $(seq "$rounds"); do
  if [ $((r % 2)) = 1 ]; then
    echo "== round $r/$rounds: hadra, then Redis"
    run_hadra
    run_redis
  else
    echo "== round $r/$rounds: Redis, then hadra"
    run_redis
    run_hadra
  fi
done

# min / median / max of the values given
stats() { tr ' ' '\n' | sed '/^$/d;/^-$/d' | sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) { print "- - -"; exit }
  printf "%s %s %s\n", v[1], v[int((NR + 1) / 2)], v[NR] }'; }
fmt() { awk -v x="$1" 'BEGIN { if (x == "-") print "-"; else if (x >= 1000) printf "%.0fk", x / 1000; else printf "%.3g", x }'; }
row() {  # label, hadra row, Redis row (or -), Redis label
  local hs rs hmed rmed ratio
  hs="$(echo "${H[$2]:-}" | stats)"
  rs="$( [ "$3" = - ] && echo "- - -" || echo "${R[$3]:-}" | stats)"
  hmed="$(echo "$hs" | cut -d' ' -f2)" rmed="$(echo "$rs" | cut -d' ' -f2)"
  ratio="$(awk -v a="$hmed" -v b="$rmed" 'BEGIN { if (b == "-" || b == 0) print "-"; else printf "%.2f", a / b }')"
  set -- "$1" "$hs" "$rs" "$ratio" "$4"
  local hmin hmax rmin rmax
  read -r hmin hmed hmax <<<"$2"
  read -r rmin rmed rmax <<<"$3"
  local rcell="—"
  [ "$rmed" = - ] || rcell="$(fmt "$rmed") ($(fmt "$rmin")–$(fmt "$rmax")) $5"
  echo "| $1 | $(fmt "$hmed") ($(fmt "$hmin")–$(fmt "$hmax")) | $rcell | $4 |"
}

{
  echo "Run of $(date -u +%Y-%m-%d) on $(nproc) cores, $rounds rounds (median, then min–max), $records replicated"
  echo "records per update run, $gsync_records records for gsync; hadra DURABILITY=${HADRA_DURABILITY:-group}."
  echo
  echo "| measure | hadra | Redis | ratio |"
  echo "|---|---|---|---|"
  row "single PSS updates, replicated end to end (rec/s)" pss pss "(SET, pipelined 64)"
  row "single SDB updates, replicated end to end (rec/s)" sdb pss "(SET, pipelined 64)"
  row "SDB batches of 1000, replicated end to end (rec/s)" sdb_batch sdb_batch "(SET, pipelined 1000)"
  row "MSDB batches of 1000, one secondary key each (rec/s)" msdb_batch sdb_batch "(SET, pipelined 1000)"
  row "gsync of a fresh standby (MB/s of payload)" gsync gsync "(full resync)"
  row "CPU µs per record, active / primary (single updates)" cpu_a cpu_a ""
  row "CPU µs per record, standby / replica (single updates)" cpu_s cpu_s ""
  row "single PSS updates, DURABILITY=none (rec/s)" pss_none - ""
  row "single PSS updates, DURABILITY=sync (rec/s)" pss_sync - ""
  row "catch-up after a 1-second break, from the backlog (ms)" catchup_backlog - ""
  row "catch-up after a 1-second break, backlog off: gsync (ms)" catchup_gsync - ""
  row "switchover, daemon's event to its answer, 10 databases (ms)" switchover - ""
  row "process heap gained from the library's start, active (KiB)" heap_a - ""
  row "process heap gained from the library's start, standby (KiB)" heap_s - ""
  echo
  echo "Ratio: hadra ÷ Redis (rates: higher is better for hadra; CPU: lower is). Redis runs"
  echo "without snapshots or append-only file, so its commits reach no disk; hadra's reach it"
  echo "within 100 ms (group). The sync row flushes every commit to disk before returning."
  echo "Catch-up and switchover run on two hadra-sysmgrd daemons (bench/stream_bench): catch-up"
  echo "with the active writing 20000 changes a second to a PSS file of 5000 records; the heap"
  echo "rows are the whole process's (the platform's stores, queues, call trace and backlog"
  echo "included) after the single PSS updates."
} | tee "$out"

# The active never waits on its standby: its writes with the standby absent, stopped and slow
# (bench/stream_bench, two daemons and two services on this host).
echo "== the active's writes with its standby absent, stopped, slow"
{
  echo
  STALL_BENCH_RUNS="${STALL_BENCH_RUNS:-15}" "$build/bench/stream_bench" --benchmark_filter=NeverStall 2>>"$scratch/pair.log" |
    sed -n '/^| the active/,$p'
} | tee -a "$out"
