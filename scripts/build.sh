#!/usr/bin/env bash
# Configure and build one build directory.
#   scripts/build.sh <build-dir> [extra cmake arguments...]
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
dir="$1"
shift
jobs="${HADRA_JOBS:-$(nproc)}"
launcher=()
# Reuse objects across build directories and work trees when ccache is there (paths are
# taken relative to the tree, so two checkouts share one cache).
if command -v ccache >/dev/null 2>&1; then
  export CCACHE_BASEDIR="$here"
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S "$here" -B "$dir" -G Ninja "${launcher[@]}" "$@" >/dev/null
cmake --build "$dir" -j "$jobs"
