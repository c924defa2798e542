#!/usr/bin/env bash
# Build the Debian packages from the build tree (CPack), check them with lintian, install them
# into a clean root with dpkg, build and run the consumer against that root, remove them and
# check that nothing of theirs is left.
#
#   deb_test.sh <build dir>
# Exit status 77 (skipped) when not root or when dpkg-deb, dpkg-shlibdeps or cpack is missing.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$1"
san=""
if [ "$(id -u)" -ne 0 ]; then
  echo "SKIP: installing packages into a clean root needs root (dpkg --root)"
  exit 77
fi
for tool in cpack dpkg-deb dpkg-shlibdeps; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is missing (Debian: cmake, dpkg-dev)"
    exit 77
  fi
done
work="$(mktemp -d "${TMPDIR:-/tmp}/hadra-deb-test-XXXXXX")"
trap 'rm -rf "$work"' EXIT
# shellcheck source=consumers.sh
. "$here/consumers.sh"

echo "== build the packages"
(cd "$build" && cpack -G DEB -B "$work/packages") >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
mapfile -t debs < <(find "$work/packages" -maxdepth 1 -name '*.deb' | sort)
names=()
for d in "${debs[@]}"; do
  names+=("$(dpkg-deb -f "$d" Package)")
  echo "$(basename "$d"): $(dpkg-deb -c "$d" | grep -vc '/$') files"
done
for want in libhadra-sysmgr0 libhadra-platform0 libhadra-dev hadra-sysmgrd; do
  grep -qx "$want" <<<"$(printf '%s\n' "${names[@]}")" || { echo "FAIL: no package $want"; exit 1; }
done

if command -v lintian >/dev/null; then
  echo "== lintian"
  # Errors fail the test; warnings are shown. Tags that do not apply to packages built outside
  # a Debian archive are left out in packaging/lintian-ignore.
  lintian --tag-display-limit 0 --suppress-tags-from-file "$here/../../packaging/lintian-ignore" \
    "${debs[@]}" >"$work/lintian.log" 2>&1 || true
  cat "$work/lintian.log"
  if grep -q '^E:' "$work/lintian.log"; then echo "FAIL: lintian errors"; exit 1; fi
else
  echo "lintian not installed: packages not checked"
fi

echo "== install into a clean root"
root="$work/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
: >"$root/var/lib/dpkg/status"
# The clean root has no libc and no shell: dependencies are the host's, and the maintainer
# scripts run outside the root (they honour DPKG_ROOT).
dpkg=(dpkg --root="$root" --log=/dev/null --force-depends --force-script-chrootless)
"${dpkg[@]}" -i "${debs[@]}" >"$work/dpkg-install.log" 2>&1 ||
  { cat "$work/dpkg-install.log"; echo "FAIL: dpkg -i"; exit 1; }
for n in "${names[@]}"; do
  grep -q '^Status: install ok installed' <<<"$("${dpkg[@]}" -s "$n" 2>/dev/null)" || { echo "FAIL: $n not installed"; exit 1; }
done
multiarch=$(find "$root/usr/lib" -name libhadra_sysmgr.so.0 -printf '%h\n')
# What the packages ship is the production platform: no testing call, no testing library.
"$here/check_platform_exports.sh" "$here/../.." "$multiarch/libhadra_platform.so.0" ||
  { echo "FAIL: the packaged libhadra_platform.so.0 exports more than its C interface"; exit 1; }
if find "$root" -name 'libhadra_platform_testing*' | grep -q .; then echo "FAIL: testing library packaged"; exit 1; fi
consumers_pkgconfig "$multiarch/pkgconfig" "$root" "$multiarch"
consumers_cmake "$root/usr" "$multiarch"

echo "== remove"
"${dpkg[@]}" -P "${names[@]}" >"$work/dpkg-remove.log" 2>&1 ||
  { cat "$work/dpkg-remove.log"; echo "FAIL: dpkg -P"; exit 1; }
left=$(cd "$root" && find . -mindepth 1 ! -path './var/lib/dpkg' ! -path './var/lib/dpkg/*' \
  ! -path './var/lib' ! -path './var')
if [ -n "$left" ]; then
  echo "$left"
  echo "FAIL: files left in the root after removing the packages"
  exit 1
fi
echo "ok: ${#names[@]} packages installed, used and removed without a trace"
