# Sourced by install and confirm: the boot-loader environment, through
# U-Boot's tools or through the command given with --bootenv.
bootenv=''
env_get() {
  if [ -n "$bootenv" ]; then $bootenv get "$1"; else need fw_printenv && fw_printenv -n "$1"; fi
}
env_set() {
  if [ -n "$bootenv" ]; then $bootenv set "$1" "$2"; else need fw_setenv && fw_setenv "$1" "$2"; fi
}
