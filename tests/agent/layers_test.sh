#!/usr/bin/env bash
# agent/'s folders include each other one way only (no folder includes one
# that includes it back, directly or through others), none includes server
# or test code, and none grows past twelve classes.
set -euo pipefail
cd "$(dirname "$0")/../../agent"
status=0
edges=$(for dir in */; do
  dir=${dir%/}
  grep -ho '#include "[a-z]*/[a-z]*/' "$dir"/*.h "$dir"/*.cpp | sed 's|#include "||;s|/$||' | sort -u |
    while read -r used; do
      case $used in
        agent/"$dir") ;;
        agent/*) echo "$dir ${used#agent/}" ;;
        *) echo "agent/$dir includes $used/" >&2; echo "bad bad" ;;
      esac
    done
done)
if grep -q '^bad bad$' <<<"$edges"; then status=1; fi
# tsort reports a cycle on standard error.
if ! tsort <<<"$(grep -v '^bad bad$' <<<"$edges")" >/dev/null 2>/tmp/layers.$$; then
  echo "agent/ folders include each other in a cycle:" >&2
  cat /tmp/layers.$$ >&2
  status=1
fi
rm -f /tmp/layers.$$
for dir in */; do
  count=$(find "$dir" -maxdepth 1 -name '*.h' | wc -l)
  if [ "$count" -gt 12 ]; then echo "agent/$dir holds $count classes (at most 12)" >&2; status=1; fi
done
[ $status = 0 ] && echo "agent/ folders: one-way includes"
exit $status
