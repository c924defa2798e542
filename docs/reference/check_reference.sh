#!/usr/bin/env bash
# Check the generated reference pages (Doxygen XML index) against what the libraries export:
#  - every public header has its page;
#  - every symbol libhadra_sysmgr.so exports (tests/c_api/exports.txt) is documented;
#  - every C symbol libhadra_platform.so exports is documented, except its testing interface
#    (plat_test_* and what only platform/testing/ declares: not installed, not for services)
#    and names reserved to the compiler (__*, e.g. AddressSanitizer's __odr_asan.* markers);
#    the error message descriptors (msg_error_HADRA_<NAME>, declared by one list macro in
#    hadra_platform/log.h) are documented by their rows in the catalogue, docs/messages.md.
# A symbol is documented when the index lists it and Doxygen did not warn that it is not.
#
#   check_reference.sh <reference dir> <source root> <libhadra_platform.so>
set -euo pipefail
ref="$1"
src="$2"
platform_lib="$3"
index="$ref/xml/index.xml"
[ -f "$index" ] || { echo "no reference index at $index (is the hadra_reference target built?)"; exit 1; }

status=0
headers=$(cd "$src/include" && ls hadra/*.h; cd "$src/platform/include" && ls hadra_platform/*.h)
for h in $headers; do
  base=$(basename "$h")
  if ! grep -q "kind=\"file\"><name>$base</name>" "$index"; then
    echo "no reference page for $h"
    status=1
  fi
done

declared=$(grep -oE 'kind="(function|variable)"><name>[^<]+</name>' "$index" |
  sed -E 's/.*<name>([^<]+)<\/name>/\1/' | sort -u)
undocumented=$(sed -nE 's/.*warning: Member ([A-Za-z_0-9]+)[ (].*is not documented\.$/\1/p' "$ref/warnings.log" |
  sort -u)
documented=$(comm -23 <(echo "$declared") <(echo "$undocumented"))
catalogue=$(sed -nE 's/^\| *[0-9]+ *\| *`([A-Z_0-9]+)`.*/msg_error_HADRA_\1/p' "$src/docs/messages.md")
documented=$(printf '%s\n' "$documented" "$catalogue" | sort -u)

library=$(grep -v '^#' "$src/tests/c_api/exports.txt" | sed '/^$/d' | sort -u)
public_headers=("$src"/include/hadra/*.h "$src"/platform/include/hadra_platform/*.h)
platform=$(nm -D --defined-only "$platform_lib" | awk '$2 ~ /^[TDBR]$/ {print $3}' | sed 's/@.*//' |
  grep -v -e '^_Z' -e '^__' -e '^plat_test_' | sort -u)
testing_only=()
for s in $platform; do
  if ! grep -qw -- "$s" "${public_headers[@]}" && grep -qrw -- "$s" "$src/platform/testing"; then
    testing_only+=("$s")
  fi
done
platform=$(comm -23 <(echo "$platform") <(printf '%s\n' "${testing_only[@]}" | sort -u))

for group in library platform; do
  missing=$(comm -23 <(echo "${!group}") <(echo "$documented"))
  if [ -n "$missing" ]; then
    echo "exported by the $group but not documented in the reference:"
    echo "$missing" | sed 's/^/  /'
    status=1
  fi
done
if [ $status -eq 0 ]; then
  echo "reference: $(echo "$headers" | wc -w) header pages;" \
    "$(echo "$library" | wc -l) library and $(echo "$platform" | wc -l) platform symbols documented" \
    "(${#testing_only[@]} testing-only platform symbols left out)"
fi
exit $status
