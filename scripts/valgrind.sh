#!/bin/sh
# Runs the whole test suite (tamrel_tests) under valgrind memcheck: any memory
# error or definite leak fails the run. Tests listed in tests/valgrind.deny,
# each with its reason, are left out; a stale entry fails the run.
#
#   scripts/valgrind.sh [BUILD_DIR] [extra gtest arguments...]
set -eu

HERE=$(dirname "$0")
BUILD_DIR=${1:-build}
[ $# -gt 0 ] && shift
BINARY=$BUILD_DIR/tamrel_tests
if [ ! -x "$BINARY" ]; then
  echo "valgrind.sh: $BINARY not found; build the tests first" >&2
  exit 2
fi
command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed" >&2; exit 2; }

# "Suite." lines, then "  test" lines: full names, one a line.
DENIED=$("$BINARY" --gtest_list_tests | awk '/^[^ ]/ { suite = $1; next } { print suite $1 }' |
  "$HERE/deny-list.sh" "$HERE/../tests/valgrind.deny" gtest)

TAMREL_SOAK_CYCLES=${TAMREL_SOAK_CYCLES:-50} exec valgrind --tool=memcheck --error-exitcode=1 \
  --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
  --track-origins=yes --quiet \
  "$BINARY" --gtest_filter="*-$DENIED" "$@"
