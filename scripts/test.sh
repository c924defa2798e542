#!/usr/bin/env bash
# Build and run every test: once in a normal build, once with AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
"$here/scripts/install-deps.sh"
"$here/scripts/check-layers.sh"

run_suite() {
  local dir="$1"
  shift
  echo "== build $dir $*"
  "$here/scripts/build.sh" "$dir" -DHADRA_BUILD_TESTS=ON "$@"
  echo "== test $dir"
  (cd "$dir" && ctest --output-on-failure -j "${HADRA_JOBS:-$(nproc)}") | tee "$dir/ctest-summary.log"
  local total
  total=$(sed -n 's/.* tests failed out of \([0-9]*\).*/\1/p' "$dir/ctest-summary.log" | tail -n 1)
  ran=$((ran + ${total:-0}))
}

ran=0

# The normal build carries the benchmark programs too: their smoke runs are ctest tests.
run_suite "$here/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHADRA_BUILD_BENCHMARKS=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite "$here/build-asan" -DCMAKE_BUILD_TYPE=Debug -DHADRA_SANITIZE=address,undefined

# The fuzz targets, built with clang, for a bounded time each (three targets: about 90 s).
fuzz_runs=0
if [ -x "$here/scripts/fuzz.sh" ]; then
  "$here/scripts/fuzz.sh" "${HADRA_FUZZ_SECONDS:-30}"
  fuzz_runs=1
fi

# Everything above stops the script at the first failure, so reaching here means all passed.
echo "all suites: $((ran + fuzz_runs)) passed, 0 failed"
