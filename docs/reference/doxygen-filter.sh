#!/bin/sh
# Doxygen input filter for hadra's public headers. The headers document their contract in
# plain C block comments (readable in the file, no markup); this marks them for Doxygen:
#  - the opening comment of the file describes the file (a file without one still gets its
#    page, so that its declarations are listed);
#  - a comment that starts a line documents the declaration below it, except "/* ---- x ---- */"
#    group separators; when several declarations follow it without a blank line, it
#    documents each of them (a member group; Doxyfile sets DISTRIBUTE_GROUP_DOC);
#  - a comment after a field, enumerator or declaration on the same line documents that member.
exec awk '
function flush(   i, n) {
  n = 0
  for (i = run; i <= len; i++) if (buf[i] ~ /^([A-Za-z_]|#define)/) n++
  if (n >= 2) print "/**@{*/"
  for (i = 1; i <= len; i++) print buf[i]
  if (n >= 2) print "/**@}*/"
  len = 0; mode = 0
}
NR == 1 && /^\/\*$/ { print "/** @file"; next }
NR == 1 && /^\/\* .*\*\/$/ { sub(/^\/\* /, ""); print "/** @file"; print " * " $0; next }
NR == 1 { print "/** @file */" }
{ starts = 0 }
/^[[:space:]]*\/\*( |$)/ && !/^[[:space:]]*\/\* -/ { sub(/\/\*/, "/**"); starts = 1 }
/[^[:space:]][[:space:]]*\/\* / { sub(/\/\* /, "/**< ") }
mode == 2 && (/^[[:space:]]*$/ || starts || (/^#/ && !/^#define/)) { flush() }
mode == 0 && starts { mode = 1 }
mode == 1 { buf[++len] = $0; if ($0 ~ /\*\//) { mode = 2; run = len + 1 }; next }
mode == 2 { buf[++len] = $0; next }
{ print }
END { if (mode) flush() }
' "$1"
