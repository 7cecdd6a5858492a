#!/usr/bin/env bash
# The plug-in exports exactly what the linker version script names: every
# name listed under "global:" (a trailing * makes it a prefix) is there, and
# nothing else is.
set -euo pipefail
lib=$1
nm=${2:-nm}
map=${3:-$(dirname "$0")/../cmake/tamrel.map}
symbols=$("$nm" -D --defined-only "$lib" | awk '$2 ~ /^[TWVDBR]$/ {print $3}' | sort)
listed=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*\*?;' |
  tr -d ' \t;')
[ -n "$listed" ] || { echo "no global names in $map"; exit 1; }
fail=0
pattern=""
for name in $listed; do
  if [[ $name == *'*' ]]; then
    regex="^${name%\*}"
  else
    regex="^${name}\$"
  fi
  grep -qE "$regex" <<<"$symbols" || { echo "missing export: $name"; fail=1; }
  pattern+="${pattern:+|}$regex"
done
unexpected=$(grep -vE "$pattern" <<<"$symbols" || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exports:"; echo "$unexpected"; fail=1
fi
[ $fail -eq 0 ] && echo "exports ok: $(wc -l <<<"$symbols") symbols"
exit $fail
