#!/usr/bin/env bash
# The library's folders form a one-way stack (docs/architecture.md). Each folder may include
# only itself and the folders of lower layers; folders of one layer never include each other.
# The public headers include no library folder at all. Fails naming every include that breaks
# the order.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"

# Folder -> layer, lowest first.
declare -A layer=(
  [wire]=0 [ident]=0
  [core]=1
  [sync]=2
  [pss]=3 [sdb]=3
  [lifecycle]=4 [sysmgrcb]=4
)

bad=0
for dir in "${!layer[@]}"; do
  [ -d "$root/$dir" ] || { echo "check-layers: folder $dir/ is missing" >&2; bad=1; continue; }
  while IFS= read -r hit; do
    file="${hit%%:*}"
    target="$(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^/"]*\)\/.*/\1/p' <<<"${hit#*:*:}")"
    [ -n "$target" ] || continue
    [ -n "${layer[$target]+x}" ] || continue  # public or platform headers
    if [ "$target" != "$dir" ] && [ "${layer[$target]}" -ge "${layer[$dir]}" ]; then
      echo "check-layers: ${file#"$root"/} (layer ${layer[$dir]}) includes $target/ (layer ${layer[$target]})" >&2
      bad=1
    fi
  done < <(grep -Hn '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$root/$dir"/*.h "$root/$dir"/*.cc "$root/$dir"/*.c 2>/dev/null || true)
done

# Public headers stand alone: they may include each other and the platform's contract only.
while IFS= read -r hit; do
  target="$(sed -n 's/.*#[[:space:]]*include[[:space:]]*"\([^/"]*\)\/.*/\1/p' <<<"$hit")"
  if [ -n "$target" ] && [ "$target" != hadra ] && [ "$target" != hadra_platform ]; then
    echo "check-layers: public header ${hit%%:*} includes $target/" >&2
    bad=1
  fi
done < <(cd "$root" && grep -Hn '#[[:space:]]*include[[:space:]]*"' include/hadra/*.h || true)

# Every library source folder is in the table, so a new folder cannot slip past the check.
for d in "$root"/*/; do
  d="$(basename "$d")"
  case "$d" in include | platform | daemon | tests | tools | bench | fuzz | docs | scripts | build*) continue ;; esac
  if ls "$root/$d"/*.cc >/dev/null 2>&1 && [ -z "${layer[$d]+x}" ]; then
    echo "check-layers: folder $d/ has library sources but no layer in scripts/check-layers.sh" >&2
    bad=1
  fi
done

if [ "$bad" -ne 0 ]; then
  echo "check-layers: FAILED" >&2
  exit 1
fi
echo "check-layers: every include follows the stack"
