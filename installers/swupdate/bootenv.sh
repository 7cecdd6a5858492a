# Sourced by install and confirm: the boot-loader environment, through
# U-Boot's fw_printenv and fw_setenv or through the command given with
# --bootenv; and the slot running now, from what the boot loader passed to
# the kernel.
bootenv='' cmdline=/proc/cmdline root_devices=''
env_get() {
  if [ -n "$bootenv" ]; then $bootenv get "$1"; else need fw_printenv && fw_printenv -n "$1"; fi
}
# env_set NAME VALUE [NAME VALUE]...: all of them in one write of the
# environment (fw_setenv -s), so that a power cut leaves the old settings or
# the new ones, never a mix. Read back: a tool that skips a line it does not
# understand still exits 0.
env_set() {
  if [ -n "$bootenv" ]; then
    $bootenv set "$@" || return 1
  else
    need fw_setenv
    script=$(mktemp) || return 1
    pairs "$@" > "$script" && fw_setenv -s "$script"
    set_rc=$?
    rm -f "$script"
    [ $set_rc -eq 0 ] || return 1
  fi
  while [ $# -gt 1 ]; do
    [ "$(env_get "$1")" = "$2" ] || { echo "$me: $1 is not $2 after writing it" >&2; return 1; }
    shift 2
  done
}
pairs() { while [ $# -gt 1 ]; do printf '%s=%s\n' "$1" "$2"; shift 2; done; }
# The running slot (A or B): tamrel.slot=SLOT on the kernel command line,
# or else the slot whose device (--root-devices 'A=DEV B=DEV') is the
# command line's root= or, without one, the device mounted at /. Never
# boot_slot: that names the slot to boot next.
running_slot() {
  words=$(cat "$cmdline") || die "cannot read the kernel command line $cmdline"
  root=''
  set -f
  for word in $words; do
    case $word in
      tamrel.slot=*) set +f; echo "${word#*=}"; return ;;
      root=*) root=${word#root=} ;;
    esac
  done
  [ -n "$root" ] || root=$(awk '$2 == "/" { dev = $1 } END { print dev }' /proc/self/mounts)
  for pair in $root_devices; do
    dev=${pair#*=}
    if [ "$dev" = "$root" ] || { [ -e "$dev" ] && [ "$(readlink -f "$dev")" = "$(readlink -f "$root")" ]; }; then
      set +f; echo "${pair%%=*}"; return
    fi
  done
  set +f
  die "cannot tell the running slot: no tamrel.slot= on the kernel command line ($cmdline)," \
    "and its root device '$root' is none of --root-devices '$root_devices'"
}
