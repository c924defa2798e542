#!/usr/bin/env bash
# Every public header compiles on its own, in C11, C++17 and C++20, with -Wall -Wextra
# -Werror -pedantic; headers that share a file name (the library's and the platform's) compile
# together in both orders; and all of them together, first to last and last to first. A name
# whose meaning depends on what was included before fails one of these.
#
#   check_headers.sh <c compiler> <c++ compiler> <repository root>
set -euo pipefail
cc="$1"
cxx="$2"
root="$3"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cd "$root"
headers=(include/hadra/*.h platform/include/hadra_platform/*.h)
inc=(-I"$root/include" -I"$root/platform/include")
fail=0
count=0

# Compile a translation unit made of the given headers (paths relative to the root) in every
# language mode.
compile() {
  local name="$1"
  shift
  local src="$work/tu"
  : >"$src.h"
  for h in "$@"; do
    printf '#include "%s"\n' "${h#include/}" | sed 's|"platform/include/|"|' >>"$src.h"
  done
  printf 'int hadra_header_check_%d;\n' "$count" >>"$src.h"
  cp "$src.h" "$src.c"
  cp "$src.h" "$src.cc"
  local flags=(-Wall -Wextra -Werror -pedantic -fsyntax-only "${inc[@]}")
  if ! "$cc" -std=c11 "${flags[@]}" "$src.c" 2>"$work/err"; then
    echo "FAIL (C11) $name" >&2
    cat "$work/err" >&2
    fail=1
  fi
  for std in c++17 c++20; do
    if ! "$cxx" -std="$std" "${flags[@]}" "$src.cc" 2>"$work/err"; then
      echo "FAIL ($std) $name" >&2
      cat "$work/err" >&2
      fail=1
    fi
  done
  count=$((count + 1))
}

for h in "${headers[@]}"; do compile "$h alone" "$h"; done

# Headers of the same name in both folders, in both orders.
for lib in include/hadra/*.h; do
  plat="platform/include/hadra_platform/$(basename "$lib")"
  [ -f "$plat" ] || continue
  compile "$lib then $plat" "$lib" "$plat"
  compile "$plat then $lib" "$plat" "$lib"
done

compile "all, first to last" "${headers[@]}"
reversed=()
for ((i = ${#headers[@]} - 1; i >= 0; i--)); do reversed+=("${headers[i]}"); done
compile "all, last to first" "${reversed[@]}"

if [ "$fail" -ne 0 ]; then
  echo "public headers: FAILED" >&2
  exit 1
fi
echo "public headers: ${#headers[@]} headers, $count translation units, each in C11, C++17 and C++20"
