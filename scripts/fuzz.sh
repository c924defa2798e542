#!/usr/bin/env bash
# Build the libFuzzer targets with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and
# run each for a bounded time on its committed seeds (fuzz/corpus/<target>/) plus a scratch
# corpus.
#
#   scripts/fuzz.sh [seconds per target] [target...]
#
# Seconds per target default to 30 (or HADRA_FUZZ_SECONDS); the targets to every one in the
# list below.
#
# Environment: HADRA_FUZZ_BUILD (build directory, default build-fuzz in the repository),
# HADRA_FUZZ_JOBS (build jobs, default 2). New inputs found during a run stay in the scratch
# corpus (removed afterwards); add one to fuzz/corpus/<target>/ by hand when it is worth
# keeping. The seeds are written by the targets themselves (see fuzz/fuzz_support.h).
# Exit status 1 when a target crashes, leaks or trips a sanitizer (the input is kept in the
# build directory and its path printed); 2 when clang cannot build fuzz targets at all.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
seconds="${1:-${HADRA_FUZZ_SECONDS:-30}}"
build="${HADRA_FUZZ_BUILD:-$here/build-fuzz}"
jobs="${HADRA_FUZZ_JOBS:-2}"
targets=(dispatch_fuzz platform_input_fuzz snapshot_fuzz sysmgr_proto_fuzz role_files_fuzz hist_ring_fuzz)
if [ "$#" -gt 1 ]; then targets=("${@:2}"); fi

# libFuzzer's runtime comes with clang's compiler-rt (Debian: libclang-rt-<version>-dev).
probe='extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }'
if ! echo "$probe" | clang++ -x c++ -fsanitize=fuzzer,address,undefined - -o /dev/null 2>/dev/null; then
  echo "fuzz.sh: clang++ cannot link a libFuzzer target with ASan and UBSan;" \
       "install clang and its compiler-rt runtime (Debian: libclang-rt-14-dev)" >&2
  exit 2
fi

echo "== build fuzz targets in $build"
cmake -S "$here/fuzz" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

scratch="$(mktemp -d "${TMPDIR:-/tmp}/hadra-fuzz-corpus-XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
status=0
for t in "${targets[@]}"; do
  seeds="$here/fuzz/corpus/$t"
  mkdir -p "$scratch/$t" "$build/artifacts/$t"
  echo "== run $t for ${seconds}s (seeds: $seeds)"
  # The scratch corpus comes first: libFuzzer writes new inputs there, never into the seeds.
  if ! ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$here/fuzz/lsan.supp}" \
      UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}" \
      "$build/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$t/" "$scratch/$t" "$seeds"; then
    echo "== $t FAILED; inputs kept in $build/artifacts/$t/" >&2
    status=1
  fi
done
exit "$status"
