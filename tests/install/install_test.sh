#!/usr/bin/env bash
# `cmake --install` into a scratch prefix, then check what landed there and build the consumer
# of this folder out of tree against it (CMake and pkg-config, C and C++) and run it.
#
#   install_test.sh <build dir> [sanitizers the build used, e.g. address,undefined]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$1"
san="${2:-}"
work="$(mktemp -d "${TMPDIR:-/tmp}/hadra-install-test-XXXXXX")"
trap 'rm -rf "$work"' EXIT
# shellcheck source=consumers.sh
. "$here/consumers.sh"

prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; echo "FAIL: cmake --install $build"; exit 1; }
pc=$(find "$prefix" -name hadra.pc)
[ -n "$pc" ] || { echo "FAIL: no hadra.pc installed"; exit 1; }
libdir=$(PKG_CONFIG_LIBDIR="$(dirname "$pc")" pkg-config --variable=libdir hadra)
status=0
fail() { echo "FAIL: $*"; status=1; }
src_root="$(cd "$here/../.." && pwd)"

# Libraries: versioned names, sonames, the library's symbol version kept.
for lib in hadra_sysmgr hadra_platform; do
  [ -L "$libdir/lib$lib.so" ] || fail "$libdir/lib$lib.so is not the development link"
  soname=$(readelf -d "$libdir/lib$lib.so" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
  [ "$soname" = "lib$lib.so.0" ] || fail "lib$lib.so has soname '$soname', not lib$lib.so.0"
  [ -e "$libdir/$soname" ] || fail "$libdir/$soname missing"
done
# Each listing is read whole before it is searched: grep -q stops at the first match, and
# the tool writing into the closed pipe would fail the pipeline (pipefail) on a large library.
symbols=$(objdump -T "$libdir/libhadra_sysmgr.so")
grep -q 'HADRA_1\.0 *hadra_ha_register_pss$' <<<"$symbols" ||
  fail "libhadra_sysmgr.so lost its symbol version HADRA_1.0"
# The installed platform carries no testing call, and its testing build is not installed.
"$here/check_platform_exports.sh" "$src_root" "$libdir/libhadra_platform.so" ||
  fail "the installed libhadra_platform.so exports more than its C interface"
if find "$prefix" -name 'libhadra_platform_testing*' | grep -q .; then fail "the testing library is installed"; fi
dynamic=$(readelf -d "$libdir/libhadra_sysmgr.so")
grep -qE 'R(UN)?PATH' <<<"$dynamic" && fail "installed library keeps a build RPATH"

# Headers: both public trees, each header found in the source, nothing of the testing interface.
src="$(cd "$here/../.." && pwd)"
for h in "$src"/include/hadra/*.h "$src"/platform/include/hadra_platform/*.h; do
  rel="${h#"$src"/include/}"
  rel="${rel#"$src"/platform/include/}"
  cmp -s "$h" "$prefix/include/$rel" || fail "header $rel not installed as in the source"
done
if find "$prefix" -name '*testing*.h' | grep -q .; then fail "testing headers installed"; fi

# The unit names the daemon where this prefix puts it.
unit=$(find "$prefix" -name 'hadra-sysmgrd@.service')
[ -n "$unit" ] || fail "no systemd unit installed"
if [ -n "$unit" ]; then
  grep -qx "ExecStart=$prefix/sbin/hadra-sysmgrd --root %S/hadra/sup%i" "$unit" ||
    fail "unit's ExecStart does not name $prefix/sbin/hadra-sysmgrd"
fi
if [ -x "$prefix/sbin/hadra-sysmgrd" ] && [ ! -f "$prefix/share/man/man8/hadra-sysmgrd.8" ]; then
  fail "hadra-sysmgrd installed without its manual page"
fi
[ $status -eq 0 ] && echo "ok: layout of $prefix"

# systemd's own check of the unit, instantiated for slot 1. Without the daemon in this build
# the command is a stand-in, so that the rest of the unit is still checked.
if [ -n "$unit" ] && command -v systemd-analyze >/dev/null; then
  mkdir -p "$work/units"
  instance="$work/units/hadra-sysmgrd@1.service"
  if [ -x "$prefix/sbin/hadra-sysmgrd" ]; then
    cp "$unit" "$instance"
  else
    echo "note: no hadra-sysmgrd in this build; the unit is checked with /bin/true as its command"
    sed "s|^ExecStart=[^ ]*|ExecStart=/bin/true|" "$unit" >"$instance"
  fi
  if ! verify=$(systemd-analyze verify "$instance" 2>&1) || [ -n "$verify" ]; then
    echo "$verify"
    fail "systemd-analyze verify finds fault with the unit"
  else
    echo "ok: systemd-analyze verify hadra-sysmgrd@1.service"
  fi
else
  echo "note: systemd-analyze not installed; the unit is not verified"
fi

# The package's version and components: what it must refuse.
probe="$work/probe"
mkdir -p "$probe"
for req in "1.0" "0.1 COMPONENTS nosuch"; do
  printf 'cmake_minimum_required(VERSION 3.20)\nproject(probe NONE)\nfind_package(hadra %s CONFIG REQUIRED)\n' \
    "$req" >"$probe/CMakeLists.txt"
  if cmake -S "$probe" -B "$probe/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
    fail "find_package(hadra $req) accepted the installed 0.x package"
  fi
  rm -rf "$probe/build"
done

consumers_cmake "$prefix" "$libdir"
consumers_pkgconfig "$libdir/pkgconfig" "" "$libdir"
exit $status
