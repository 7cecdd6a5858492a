#!/bin/sh
# Runs the unit test binaries (tamrel_tests, tamrel_agent_*_tests) under
# valgrind memcheck: any memory error or definite leak fails the run. Tests
# listed in tests/valgrind.deny, each with its reason, are left out; a stale
# entry fails the run.
#
#   scripts/valgrind.sh [BUILD_DIR] [extra gtest arguments...]
set -eu

HERE=$(dirname "$0")
BUILD_DIR=${1:-build}
[ $# -gt 0 ] && shift
command -v valgrind >/dev/null || { echo "valgrind.sh: valgrind is not installed" >&2; exit 2; }
BINARIES="tamrel_tests $(cd "$BUILD_DIR" && ls tamrel_agent_*_tests 2>/dev/null | tr '\n' ' ')"
for name in $BINARIES; do
  if [ ! -x "$BUILD_DIR/$name" ]; then
    echo "valgrind.sh: $BUILD_DIR/$name not found; build the tests first" >&2
    exit 2
  fi
done

# "Suite." lines, then "  test" lines: full names, one a line, of both.
DENIED=$(for name in $BINARIES; do
  "$BUILD_DIR/$name" --gtest_list_tests | awk '/^[^ ]/ { suite = $1; next } { print suite $1 }'
done | "$HERE/deny-list.sh" "$HERE/../tests/valgrind.deny" gtest)

for name in $BINARIES; do
  TAMREL_SOAK_CYCLES=${TAMREL_SOAK_CYCLES:-50} valgrind --tool=memcheck --error-exitcode=1 \
    --leak-check=full --errors-for-leak-kinds=definite --show-leak-kinds=definite \
    --track-origins=yes --quiet \
    "$BUILD_DIR/$name" --gtest_filter="*-$DENIED" "$@"
done
