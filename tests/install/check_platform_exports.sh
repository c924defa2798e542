#!/usr/bin/env bash
# Check the dynamic symbol table of the platform library that services load:
#  - it defines no testing call: nothing named plat_test_*, plat_trace_*, plat_fault_*,
#    mts_test_*, and nothing the headers of platform/testing/ declare;
#  - it defines only the C interface of the public headers (no C++ symbol, no internal
#    helper), and every call those headers declare is there;
# and, when the testing library is given, that it exports every testing call as well.
#
#   check_platform_exports.sh <source root> <libhadra_platform.so> [libhadra_platform_testing.so]
set -euo pipefail
src="$1"
lib="$2"
testing_lib="${3:-}"
status=0
fail() { echo "FAIL: $*"; status=1; }

defined_of() { nm -D --defined-only "$1" | awk 'NF == 3 {print $3}' | sed 's/@.*//' | sort -u; }
# Names after HADRA_PLAT_API in headers: functions (name before its parenthesis) and objects.
declared_in() {
  cat "$@" | tr '\n[' ' (' | grep -oE 'HADRA_PLAT_API[^;{(#]*[(;]' |
    sed -E 's/[[:space:]]*[(;]$//; s/.*[^A-Za-z_0-9]([A-Za-z_][A-Za-z_0-9]*)$/\1/' | grep -v '^__' | sort -u
}

public_headers=("$src"/platform/include/hadra_platform/*.h)
testing_headers=("$src"/platform/testing/*.h)
defined=$(defined_of "$lib")
public=$(declared_in "${public_headers[@]}" | grep -v '^HADRA_PLAT_API$' || true)
# The error descriptors are declared by one list macro: msg_error_HADRA_<NAME> per X(NAME).
descriptors=$(sed -nE 's/^[[:space:]]*X\(([A-Z_0-9]+)\).*/msg_error_HADRA_\1/p' \
  "$src/platform/include/hadra_platform/log.h" | sort -u)
testing=$(declared_in "${testing_headers[@]}")
[ -n "$testing" ] || fail "no testing calls found in ${testing_headers[*]}"

leaked=$( (echo "$defined" | grep -E '^(plat_test_|plat_trace_|plat_fault_|mts_test_)' || true;
  comm -12 <(echo "$defined") <(echo "$testing")) | sed '/^$/d' | sort -u)
[ -z "$leaked" ] || fail "$(basename "$lib") exports testing calls:"$'\n'"$leaked"
cxx=$(echo "$defined" | grep '^_Z' || true)
[ -z "$cxx" ] || fail "$(basename "$lib") exports C++ symbols:"$'\n'"$(echo "$cxx" | c++filt | head -20)"
extra=$(comm -23 <(echo "$defined" | grep -v '^_Z') <(printf '%s\n' "$public" "$descriptors" | sort -u))
[ -z "$extra" ] || fail "$(basename "$lib") exports what no public header declares:"$'\n'"$extra"
missing=$(comm -13 <(echo "$defined") <(printf '%s\n' "$public" "$descriptors" | sed '/^$/d' | sort -u))
[ -z "$missing" ] || fail "declared in the public headers but not exported by $(basename "$lib"):"$'\n'"$missing"

if [ -n "$testing_lib" ]; then
  tdefined=$(defined_of "$testing_lib")
  tmissing=$(comm -13 <(echo "$tdefined") <(printf '%s\n' "$testing" "$defined" | sort -u))
  [ -z "$tmissing" ] || fail "$(basename "$testing_lib") does not export:"$'\n'"$tmissing"
fi

if [ $status -eq 0 ]; then
  echo "platform exports: $(basename "$lib"): $(echo "$defined" | wc -l) C symbols, no testing call"
  [ -z "$testing_lib" ] || echo "platform exports: $(basename "$testing_lib") adds $(echo "$testing" | wc -l) testing calls"
fi
exit $status
