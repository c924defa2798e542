#!/usr/bin/env bash
# Configure and build one build directory.
#   scripts/build.sh <build-dir> [extra cmake arguments...]
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
dir="$1"
shift
jobs="${HADRA_JOBS:-$(nproc)}"
cmake -S "$here" -B "$dir" -G Ninja "$@" >/dev/null
cmake --build "$dir" -j "$jobs"
