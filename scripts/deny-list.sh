#!/bin/sh
# Reads test names (one a line) on standard input and prints the ones a
# deny-list leaves out, in the form a test runner takes:
#
#   scripts/deny-list.sh FILE regex   ->  ^(A\.b|C\.d)$   for ctest -E
#   scripts/deny-list.sh FILE gtest   ->  A.b:C.d         for --gtest_filter=-...
#
# FILE holds one entry a line: a test name, where `*` matches any run of
# characters, then `#` and the reason it is left out. Lines that start with
# `#` and blank lines are comments. An entry without a reason, or one that
# matches no test, fails the run: a stale entry would hide a test that came
# later under its name and mislead the reader.
set -euf

FILE=$1
FORM=$2
NAMES=$(cat)
status=0
denied=""

while IFS= read -r line || [ -n "$line" ]; do
  case $line in '#'* | '') continue ;; esac
  entry=$(printf '%s' "${line%%#*}" | tr -d ' \t')
  reason=$(printf '%s' "${line#*#}" | tr -d ' \t')
  if [ "$entry" = "" ] || [ "$line" = "${line%%#*}" ] || [ "$reason" = "" ]; then
    echo "deny-list: $FILE: entry without a name or a reason: $line" >&2
    status=1
    continue
  fi
  matched=0
  for name in $NAMES; do
    # shellcheck disable=SC2254  # the entry is a pattern on purpose
    case $name in $entry) matched=1 denied="$denied $name" ;; esac
  done
  if [ $matched = 0 ]; then
    echo "deny-list: $FILE: '$entry' matches no test" >&2
    status=1
  fi
done < "$FILE"
[ $status = 0 ] || exit $status

if [ "$FORM" = gtest ]; then
  printf '%s\n' "$(echo $denied | tr ' ' ':')"
else
  list=$(echo $denied | sed 's/\./\\./g' | tr ' ' '|')
  printf '^(%s)$\n' "${list:-no test is denied}"
fi
