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
# record NAME VALUE: written to a new temporary file of a name no one can
# guess (mktemp: created, never followed), flushed and renamed, the directory
# flushed after the rename, so that a crash leaves the old record or the new
# one. A state directory others may write to is refused: a link planted there
# would make root write where it points.
record() {
  mkdir -p -m 700 "$state" || die "cannot create $state"
  [ -z "$(find -H "$state" -maxdepth 0 \( ! -user "$(id -u)" -o -perm /022 \))" ] ||
    die "$state is writable by others than its owner, or not owned by $(id -un): refusing to write records there"
  tmp=$(mktemp "$state/.$1.XXXXXX") || die "cannot write $state/$1"
  if ! { printf '%s\n' "$2" > "$tmp" && sync "$tmp" && mv -fT "$tmp" "$state/$1" && sync "$state"; }; then
    rm -f "$tmp"
    die "cannot write $state/$1"
  fi
}
recorded() {
  [ -s "$state/$1" ] || die "no record of an installed update in $state/$1"
  cat "$state/$1"
}
