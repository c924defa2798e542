#!/usr/bin/env bash
# The tutorial quotes its programs instead of describing them, so the quotes must be the
# programs. A code block of docs/tutorial.md directly after a line
#   <!-- file: examples/tutorial/NAME -->
# is a piece of that file; a file's pieces, read in order, must be the whole file. Every C,
# C++ and CMake file of examples/tutorial must be quoted that way.
#
#   check_docs.sh [source dir]
set -euo pipefail
src="${1:-$(cd "$(dirname "$0")/../.." && pwd)}"
doc="$src/docs/tutorial.md"
work="$(mktemp -d "${TMPDIR:-/tmp}/hadra-tutorial-docs-XXXXXX")"
trap 'rm -rf "$work"' EXIT

pending="" current="" n=0
while IFS= read -r line; do
  n=$((n + 1))
  if [ -n "$current" ]; then
    if [ "$line" = '```' ]; then current=""; else printf '%s\n' "$line" >>"$work/${current//\//%}"; fi
    continue
  fi
  if [[ $line =~ ^'<!-- file: '([^ ]+)' -->'$ ]]; then
    pending="${BASH_REMATCH[1]}"
    [ -f "$src/$pending" ] || { echo "FAIL: $doc:$n quotes $pending, which does not exist"; exit 1; }
    : >>"$work/${pending//\//%}"
    continue
  fi
  if [ -n "$pending" ]; then
    [[ $line == '```'* ]] || { echo "FAIL: $doc:$n: no code block right after the marker of $pending"; exit 1; }
    current="$pending" pending=""
  fi
done <"$doc"
[ -z "$current" ] || { echo "FAIL: $doc: the last code block of $current is not closed"; exit 1; }

status=0
for f in "$src"/examples/tutorial/*.c "$src"/examples/tutorial/*.cc "$src"/examples/tutorial/CMakeLists.txt; do
  rel="${f#"$src"/}"
  [ -e "$work/${rel//\//%}" ] || { echo "FAIL: docs/tutorial.md does not quote $rel"; status=1; }
done
for quoted in "$work"/*; do
  rel="$(basename "$quoted")"
  rel="${rel//%//}"
  if diff -u --label "$rel" --label "$rel as docs/tutorial.md quotes it" "$src/$rel" "$quoted"; then
    echo "ok: $rel is quoted whole, in $(grep -c "^<!-- file: $rel -->" "$doc") pieces"
  else
    echo "FAIL: docs/tutorial.md and $rel differ (above)"
    status=1
  fi
done
exit $status
