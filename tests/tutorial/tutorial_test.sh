#!/usr/bin/env bash
# What a reader of docs/tutorial.md does: install hadra, build the tutorial's service
# (examples/tutorial) out of tree with find_package(hadra), and run its walk-through
# (examples/tutorial/pair.sh) twice, once with the C service active and the C++ one standby
# and once the other way round.
#
#   tutorial_test.sh <build dir> [sanitizers the build used, e.g. address,undefined]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
src="$(cd "$here/../.." && pwd)"
build="$1"
san="${2:-}"
work="$(mktemp -d "${TMPDIR:-/tmp}/hadra-tutorial-test-XXXXXX")"
trap 'rm -rf "$work"' EXIT

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; echo "FAIL: cmake --install $build"; exit 1; }
[ -x "$prefix/sbin/hadra-sysmgrd" ] || { echo "FAIL: no hadra-sysmgrd installed under $prefix/sbin"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name libhadra_sysmgr.so.0 | head -n 1)")

# The reader's build, with warnings as errors in both languages.
flags="-Wall -Wextra -Werror -pedantic"
[ -n "$san" ] && flags="$flags -fsanitize=$san"
cmake -S "$src/examples/tutorial" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_PACKAGE_NO_SYSTEM_PACKAGE_REGISTRY=ON \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >"$work/configure.log" 2>&1 ||
  { cat "$work/configure.log"; echo "FAIL: the tutorial's CMakeLists.txt does not configure against $prefix"; exit 1; }
cmake --build "$work/build" >"$work/build.log" 2>&1 ||
  { cat "$work/build.log"; echo "FAIL: the tutorial's service does not build"; exit 1; }
echo "ok: kvstore and kvstore-cxx built with find_package(hadra) against $prefix"

# The installed daemon has no run path of its own: it finds the libraries as a reader's
# would under a prefix the loader does not search.
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
export HADRA_SYSMGRD="$prefix/sbin/hadra-sysmgrd"
status=0
for run in "kvstore kvstore-cxx" "kvstore-cxx kvstore"; do
  set -- $run
  echo "== pair.sh: supervisor 1 runs $1, supervisor 2 runs $2"
  if ! timeout 120 "$src/examples/tutorial/pair.sh" "$work/build/$1" "$work/build/$2"; then
    echo "FAIL: the walk-through with $1 and $2"
    status=1
  fi
done
exit $status
