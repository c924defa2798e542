#!/usr/bin/env bash
# Check the dynamic symbol table of libhadra_sysmgr.so:
#  - the defined symbols are exactly the public interface listed in exports.txt;
#  - no platform call is defined in it (they must resolve at load time);
#  - the platform calls it makes are left undefined.
set -euo pipefail
lib="$1"
expected="$2"
defined=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -v '^HADRA_1.0$' | sort -u)
want=$(grep -v '^#' "$expected" | sed '/^$/d' | sort -u)
status=0
extra=$(comm -23 <(echo "$defined") <(echo "$want"))
missing=$(comm -13 <(echo "$defined") <(echo "$want"))
if [ -n "$extra" ]; then echo "exported but not public:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "public but not exported:"; echo "$missing"; status=1; fi
platform_defined=$(echo "$defined" | grep -E '^(plat_|pss2?_|sdb_|mksdb_|mts_|tsp_|syslog_|sdwrap_|dbgout|fu_sdb_)' || true)
if [ -n "$platform_defined" ]; then echo "platform code inside the library:"; echo "$platform_defined"; status=1; fi
undefined=$(nm -D --undefined-only "$lib" | awk '{print $2}' | sed 's/@.*//')
for call in plat_syslog syslog_msg_rate_limit sysmgr_supstate_get sysmgr_uri_complete hadra_strcpy; do
  if ! grep -qx "$call" <<<"$undefined"; then echo "expected undefined platform call: $call"; status=1; fi
done
dynamic=$(readelf -d "$lib")
if grep -q SYMBOLIC <<<"$dynamic"; then echo "library linked with -Bsymbolic"; status=1; fi
if grep -q 'libhadra_platform' <<<"$dynamic"; then echo "library links the platform directly"; status=1; fi
[ $status -eq 0 ] && echo "exports: $(echo "$defined" | wc -l) public symbols, platform calls undefined"
exit $status
