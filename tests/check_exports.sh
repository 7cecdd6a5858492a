#!/usr/bin/env bash
# The plug-in exports its two entry points and the documented free functions,
# and nothing of its internal classes.
set -euo pipefail
lib=$1
nm=${2:-nm}
symbols=$("$nm" -D --defined-only "$lib" | awk '$2 ~ /^[TWVDBR]$/ {print $3}' | sort)
fail=0
for needed in create_object destroy_object; do
  grep -qx "$needed" <<<"$symbols" || { echo "missing export: $needed"; fail=1; }
done
for prefix in _Z8is_valid _Zeq _Zne _Z22get_full_artifact_path _Z27get_full_artifact_file_path; do
  grep -q "^$prefix" <<<"$symbols" || { echo "missing export: $prefix*"; fail=1; }
done
unexpected=$(grep -vE '^(create_object|destroy_object|_Z8is_valid|_Zeq|_Zne|_Z22get_full_artifact_path|_Z27get_full_artifact_file_path)' <<<"$symbols" || true)
if [ -n "$unexpected" ]; then
  echo "unexpected exports:"; echo "$unexpected"; fail=1
fi
[ $fail -eq 0 ] && echo "exports ok: $(wc -l <<<"$symbols") symbols"
exit $fail
