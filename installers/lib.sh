# Sourced by the installer scripts: messages that end up in the agent's
# failure feedback (the last lines of standard error), and the record of the
# slot an install wrote, kept for the confirmation after the reboot.
me="tamrel-$(basename "$(dirname "$0")")-$(basename "$0")"
state=/var/lib/tamrel/state
die() { echo "$me: $*" >&2; exit 1; }
# run COMMAND...: its output (both streams) to standard error, kept in $out.
run() {
  out=$("$@" 2>&1)
  set -- $?
  printf '%s\n' "$out" >&2
  return "$1"
}
need() { command -v "$1" > /dev/null 2>&1 || die "$1 is not installed"; }
# record NAME VALUE: written to a temporary file, flushed and renamed, so a
# crash leaves the old record or the new one.
record() {
  if ! { mkdir -p "$state" && printf '%s\n' "$2" > "$state/$1.tmp" && sync "$state/$1.tmp" &&
    mv -f "$state/$1.tmp" "$state/$1"; }; then die "cannot write $state/$1"; fi
}
recorded() {
  [ -s "$state/$1" ] || die "no record of an installed update in $state/$1"
  cat "$state/$1"
}
