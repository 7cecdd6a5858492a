#!/usr/bin/env bash
# tamrel-agent with the shipped RAUC and SWUpdate integrations against
# tamrel-ddi-server: a signed update goes into slot B, the test "reboots" (a
# new boot id, the RAUC service restarted with the slot booted), the next
# start confirms. Checked on the device (slot files, the boot loader's files)
# and on the server (one closing feedback, the action's history). Needs root.
# usage: installers_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/agent/lib.sh"
src=$(cd "$(dirname "$0")/.." && pwd)/installers
[ "$(id -u)" -eq 0 ] || { echo "installers test: needs root"; exit 2; }
for tool in rauc mksquashfs dbus-daemon busctl swupdate fw_setenv openssl cpio curl; do
  command -v $tool > /dev/null || { echo "installers test: $tool is missing"; exit 2; }
done
# The server lib.sh starts is bounded too.
printf '#!/bin/sh\nexec timeout 300 %s "$@"\n' "$server" > "$work/server" && chmod +x "$work/server"
server=$work/server
start=$SECONDS dev=$work/dev boot=$work/dev/boot keys=$work/keys
mkdir -p "$dev/mnt" "$keys"
head -c 300000 /dev/urandom > "$work/image"
head -c 300000 /dev/zero > "$work/zeros"

# RAUC's keyring is a CA that issued the signing certificate; other.pem is
# trusted by neither installer.
sign() { (cd "$keys" && openssl "$@" -days 2 2> /dev/null); }
sign req -x509 -newkey rsa:2048 -nodes -subj /CN=ca -keyout ca.key -out ca.pem \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign
sign req -newkey rsa:2048 -nodes -subj /CN=signer -keyout signer.key -out signer.csr
printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n' > "$keys/ext"
sign x509 -req -in signer.csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile ext -out signer.pem
for k in other swu; do sign req -x509 -newkey rsa:2048 -nodes -subj /CN=$k -keyout $k.key -out $k.pem; done

# A private system bus: root may own RAUC's name, anyone call it and
# receive its answers and signals.
cat > "$dev/bus.conf" << EOF
<busconfig><type>system</type><listen>unix:path=$dev/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="de.pengutronix.rauc"/>
<allow send_destination="*"/><allow send_type="signal"/><allow receive_type="method_call"/>
<allow receive_type="method_return"/><allow receive_type="error"/><allow receive_type="signal"/>
</policy></busconfig>
EOF
timeout 300 dbus-daemon --nofork --config-file="$dev/bus.conf" 2> /dev/null &
pids+=($!)
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$dev/bus

# The boot loader stand-in keeps the primary slot and each slot's state in
# files; set-primary makes the slot bootable again, and while $boot/hold
# exists it first waits for $boot/go (an install caught in the act).
cat > "$dev/backend" << EOF
#!/bin/sh
cd $boot && case \$1 in get-primary) cat primary ;; get-state) cat state.\$2 ;; set-state) echo \$3 > state.\$2 ;;
set-primary) ! rm hold 2> /dev/null || { echo > busy; timeout 20 sh -c 'until [ -e go ]; do sleep 0.1; done'; }
  echo \$2 >> primaries; echo \$2 > primary; echo good > state.\$2 ;; *) exit 1 ;; esac
EOF
# SWUpdate's boot-loader environment: U-Boot's tools on a file (boot_slot=A
# when it holds none), the running slot on the kernel command line in
# $dev/cmdline. rauc warns on standard error, with words that break or
# abuse an evaluation of it.
mkdir -p "$dev/bin"
echo "$dev/uboot.env 0x0 0x1000" > "$dev/fw_env.config" && echo boot_slot=A > "$dev/initial.env"
for t in fw_printenv fw_setenv; do
  printf '#!/bin/sh\nexec %s -c %s -f %s "$@"\n' "$(command -v $t)" "$dev/fw_env.config" "$dev/initial.env" > "$dev/bin/$t"
done
printf '#!/bin/sh\n[ "$1" != status ] || echo "(rauc:1): WARNING: can'"'"'t \$(touch %s/evaluated)" >&2\nexec %s "$@"\n' \
  "$dev" "$(command -v rauc)" > "$dev/bin/rauc"
export PATH=$dev/bin:$PATH
printf '#!/bin/sh\necho >> %s/reboots\n' "$dev" > "$dev/reboot"
chmod +x "$dev/backend" "$dev/bin/"* "$dev/reboot"
env_is() { [ "$(fw_printenv -n "$1" 2> /dev/null)" = "$2" ]; }
refuses() { local out; out=$(timeout 20 sh -c "$1" 2>&1) && return 1; grep -qF -- "$2" <<< "$out"; }
printf '%s\n' '[system]' compatible=tamrel-test bootloader=custom "mountprefix=$dev/mnt" \
  "statusfile=$dev/rauc.status" '[handlers]' "bootloader-custom-backend=$dev/backend" '[keyring]' \
  "path=$keys/ca.pem" '[slot.rootfs.0]' "device=$dev/slotA" type=raw bootname=A \
  '[slot.rootfs.1]' "device=$dev/slotB" type=raw bootname=B > "$dev/system.conf"

# bundle NAME KEY: a plain RAUC bundle of the image (its manifest written
# afresh: rauc bundle rewrites it). swu NAME KEY: a signed SWUpdate image
# writing the image into slot A or B.
bundle() {
  mkdir -p "$work/b" && cp "$work/image" "$work/b/rootfs.img"
  printf '[update]\ncompatible=tamrel-test\nversion=2\n[bundle]\nformat=plain\n[image.rootfs]\nfilename=rootfs.img\n' \
    > "$work/b/manifest.raucm"
  timeout 60 rauc bundle --cert="$keys/$2.pem" --key="$keys/$2.key" "$work/b" "$work/$1" > /dev/null 2>&1
}
swu() {
  local d=$work/s sum; mkdir -p "$d" && cp "$work/image" "$d/image" && sum=$(sha256sum < "$d/image")
  printf 'software = { version = "2"; hardware-compatibility: [ "1.0" ]; stable: {\n' > "$d/sw-description"
  for m in A B; do printf '%s: { files: ( { filename = "image"; path = "%s"; sha256 = "%s"; } ); };\n' \
    $m "$dev/slot$m" "${sum%% *}"; done >> "$d/sw-description"
  echo '}; }' >> "$d/sw-description"
  openssl cms -sign -in "$d/sw-description" -out "$d/sw-description.sig" -signer "$keys/$2.pem" \
    -inkey "$keys/$2.key" -outform DER -nosmimecap -binary
  (cd "$d" && printf '%s\n' sw-description sw-description.sig image | cpio --quiet -o -H crc) > "$work/$1"
}
bundle good.raucb signer && bundle untrusted.raucb other && swu good.swu swu && swu other.swu other ||
  { echo "could not make the update files"; exit 2; }

# A service stopped during an install would leave its bundle mounted.
rauc_pid='' server_pid='' boots=0
trap '[ -z "$rauc_pid" ] || { kill $rauc_pid; wait $rauc_pid; grep -o " $dev/mnt/[^ ]*" /proc/mounts | xargs -r umount; }
      cleanup' EXIT
# boot [SLOT]: a new boot id, the RAUC service started again booted from SLOT.
# service [SLOT]: the service stopped, and started booted from SLOT.
boot() { echo "boot$((++boots))" > "$dev/boot-id"; service "${1:-}"; }
service() {
  [ -z "$rauc_pid" ] || { kill "$rauc_pid"; wait "$rauc_pid"; rauc_pid=''; }
  [ -n "${1:-}" ] || return 0
  timeout 300 rauc service --conf="$dev/system.conf" --override-boot-slot="$1" >> "$dev/rauc.log" 2>&1 &
  rauc_pid=$!
  for _ in $(seq 100); do
    timeout 5 dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
      string:de.pengutronix.rauc 2> /dev/null | grep -q true && return 0
    sleep 0.1
  done
  echo "the RAUC service did not start"; return 1
}
# device INSTALLER FILE [SERVER-OPTION...]: blank slots, slot A booted and
# primary, the server offering FILE, the agent set up with the shipped
# fragment pointed at the test's files.
device() {
  local extra=''; [ "$1" = rauc ] || extra="--cmdline $dev/cmdline "
  [ -z "$server_pid" ] || kill "$server_pid"
  rm -rf "$boot" "$work/art" "$work/state" "$work/agent-state" "$dev/reboots" "$dev/rauc.status"
  head -c 4096 /dev/zero > "$dev/uboot.env"
  mkdir -p "$boot" "$work/art" && cp "$work/$2" "$work/art/"
  for s in A B; do cp "$work/zeros" "$dev/slot$s"; echo good > "$boot/state.$s"; done
  echo A > "$boot/primary"; echo 'quiet tamrel.slot=A' > "$dev/cmdline"
  boot A && serve "${@:3}" || return 1
  server_pid=${pids[-1]}
  sed -i '/^state-dir = /d' "$conf"
  sed -e "s|/usr/share/tamrel-agent/installers|$src|; s|\(/install\) |\1 $extra--state $work/state |" \
    -e "s|/confirm$|& $extra--state $work/state|; s|^state-dir = .*|state-dir = $work/agent-state|" \
    -e "s|--key [^ ]*|--key $keys/swu.pem --swupdate-args '-H board:1.0'|" \
    -e "s|^reboot-command = .*|reboot-command = $dev/reboot|" "$src/$1/agent.conf" >> "$conf"
  echo "boot-id-file = $dev/boot-id" >> "$conf"
  runs=0
}
# agent [PATTERN FILE COMMAND]: one run of tamrel-agent --once; COMMAND is
# run once PATTERN is in FILE (LOG: the agent's output; $apid: its PID).
agent() {
  local log=$work/agent$n.$((++runs)).log
  TMPDIR=$dev timeout 60 "$build/tamrel-agent" --once --config "$conf" > "$log" 2>&1 &
  apid=$!
  [ $# -eq 0 ] || { wait_for "$1" "${2/LOG/$log}" && eval "$3"; }
  wait $apid
}

# closed_once RESULT TEXT: one closing feedback, the action FINISHED or ERROR
# with TEXT in its history.
closed_once() {
  local status=FINISHED; [ "$1" = success ] || status=ERROR
  curl -s --max-time 10 -H 'Authorization: TargetToken t0k#1' -o "$work/history" \
    "$address/DEFAULT/controller/v1/dev01/deploymentBase/1?actionHistory=-1"
  [ "$(closing | wc -l)" -eq 1 ] && closed_with "$1" && grep -q "\"status\":\"$status\"" "$work/history" &&
    grep -qF -- "$2" "$work/history"
}
slot_is() { cmp -s "$dev/slot$1" "$work/$2"; }
file_is() { [ "$(cat "$1" 2> /dev/null)" = "$2" ]; }
reboots() { [ "$(cat "$dev/reboots" 2> /dev/null | wc -l)" -eq "$1" ]; }
untouched() { slot_is A zeros && slot_is B zeros && file_is "$boot/primary" A && reboots 0; }
installed_once() { slot_is A zeros && slot_is B image && reboots "${1:-1}"; }
confirmed='confirm command: exit 0'

device rauc good.raucb; agent
check "rauc: slot B written, B primary once, reboot asked, nothing closed" \
  eval 'installed_once && file_is "$boot/primaries" B && test -z "$(closing)"'
# The same bundle again before the reboot (a power loss before the agent's
# record): already staged, nothing installed again.
check "rauc: the same bundle again before the reboot: already staged, exit 10, no second install" \
  eval '"$src/rauc/install" --state "$work/state" "$work/good.raucb" 2> "$work/again-rauc"; test $? -eq 10 &&
        grep -q "already staged in rootfs.1" "$work/again-rauc" && file_is "$boot/primaries" B'
# The agent starts before the service after this reboot: confirm waits for it.
boot; agent 'waiting for the RAUC service' LOG 'service B'
check "rauc: confirmed after the reboot (warnings on stderr), closed success once, B marked good" \
  eval 'closed_once success "$confirmed" && file_is "$boot/state.B" good && file_is "$boot/primaries" B &&
        reboots 1 && test ! -e "$dev/evaluated"'

device rauc untrusted.raucb; agent
check "rauc untrusted signer: closed failure with RAUC's reason, nothing installed" \
  eval 'closed_once failure "rauc install failed: signature verification failed" && untouched'

device rauc good.raucb; agent; boot A; agent
check "rauc fallback: closed failure naming it, written slot B marked bad" \
  eval 'closed_once failure "the boot loader fell back" && installed_once && file_is "$boot/state.B" bad'

# The service goes on with the install after the agent's stop: the next
# start waits for it to end, then installs again.
device rauc good.raucb; : > "$boot/hold"; agent '' "$boot/busy" 'kill -TERM $apid'
check "rauc SIGTERM during install: agent ended with 0, action open" eval "test $? -eq 0 && test -z \"\$(closing)\""
agent 'waiting for the RAUC service' LOG ': > "$boot/go"'; boot B; agent
check "rauc SIGTERM during install: installed again after the first, closed success once" \
  eval 'closed_once success "$confirmed" && slot_is B image && file_is "$boot/primaries" "$(printf "B\nB")" && reboots 1'

# install-mode url: the integration calls the RAUC service's InstallBundle
# with the URL and TLS files from the agent's credentials file (busctl logs
# its arguments). RAUC takes headers only as call arguments, on busctl's
# command line: with a token the integration refuses before calling. A local
# bundle through the same call shows that the integration waits for the
# service's result.
printf '#!/bin/sh\necho "$*" >> %s/busctl.args\nexec %s "$@"\n' "$dev" "$(command -v busctl)" > "$dev/bin/busctl"
chmod +x "$dev/bin/busctl"
device rauc good.raucb; echo 'install-mode = url' >> "$conf"; agent
check "rauc url with a token: refused naming why, the token on no command line, nothing installed" \
  eval 'closed_once failure "install-mode url with a token: RAUC takes the authorization header only on a command line" &&
        untouched && ! grep -q "t0k#1" "$dev/busctl.args" 2> /dev/null'
creds=$work/creds
url_install() {
  printf 'url = "%s"\ncacert = "%s"\n' "$1" "$keys/ca.pem" > "$creds"
  TAMREL_INSTALL_MODE=url TAMREL_CREDENTIALS_FILE=$creds "$src/rauc/install" --state "$work/state" "$(basename "$1")"
}
device rauc good.raucb
check "rauc url, a local bundle through InstallBundle: slot B written, exit 10" \
  eval 'url_install "$work/good.raucb" 2> /dev/null; test $? -eq 10 && installed_once 0 && file_is "$boot/primary" B &&
        grep -q "good.raucb 1 tls-ca s $keys/ca.pem" "$dev/busctl.args"'
device rauc untrusted.raucb
check "rauc url, an untrusted bundle: RAUC's reason, nothing installed" \
  refuses "printf 'url = \"%s\"\n' $work/untrusted.raucb > $creds && TAMREL_INSTALL_MODE=url TAMREL_CREDENTIALS_FILE=$creds $src/rauc/install --state $work/state untrusted.raucb" \
  "rauc install failed: signature verification failed"

device swupdate good.swu; agent
check "swupdate: slot B written, boot_slot B on trial, reboot asked" \
  eval 'installed_once && env_is boot_slot B && env_is upgrade_available 1'
# The reboot did not happen: still running A. The same image again (a power
# loss before the agent's record) is already staged; another is refused.
again="$src/swupdate/install --key $keys/swu.pem --cmdline $dev/cmdline --state $work/state"
check "swupdate: the same image again before the reboot: already staged, exit 10, slot A untouched" eval \
  'sh -c "$again $work/good.swu" 2> "$work/again"; test $? -eq 10 && grep -q "already staged in slot B" "$work/again" &&
   installed_once && env_is boot_slot B && env_is upgrade_available 1'
check "swupdate: another image before the reboot is refused, slot A untouched" eval \
  'refuses "$again $work/other.swu" "waits for its trial boot" && installed_once'
echo "boot$((++boots))" > "$dev/boot-id"; echo 'quiet tamrel.slot=B' > "$dev/cmdline"; agent
check "swupdate: confirmed after the reboot, closed success once, trial ended" \
  eval 'closed_once success "$confirmed" && env_is upgrade_available 0 && reboots 1'

device swupdate good.swu --corrupt good.swu; agent
check "swupdate corrupt image: closed failure on its digest, nothing installed" \
  eval 'closed_once failure "digest mismatch" && untouched && env_is boot_slot A'

device swupdate other.swu; agent
check "swupdate image of another key: closed failure with SWUpdate's reason, nothing installed" \
  eval 'closed_once failure "slot B: Authentication of all signatures failed" && untouched && env_is boot_slot A'

# Streamed into SWUpdate (swupdate -i on a pipe): nothing stored, the end
# of the image held back until its digests match.
# (An install left waiting for its reboot by the case before is dropped.)
streamed() {
  rm -rf "$work/agent-state"; printf 'install-mode = stream\nstream-hold-back-kib = 64\n' >> "$conf"; agent
}
stored_nothing() { [ -z "$(find "$dl" -type f 2> /dev/null)" ]; }
device swupdate good.swu; streamed
check "swupdate stream: slot B written, boot_slot B on trial, nothing stored" \
  eval 'installed_once && env_is boot_slot B && stored_nothing && grep -q "streamed and verified" "$log"'
device swupdate good.swu --drop-after 150000; streamed
check "swupdate stream cut and resumed: slot B written" \
  eval 'installed_once && env_is boot_slot B && stored_nothing && grep -q "resuming" "$work/agent$n.1.log"'
device swupdate good.swu --corrupt good.swu; streamed
check "swupdate stream digest mismatch: end held back, closed failure, nothing installed" \
  eval 'closed_once failure "the end of the stream was held back" && untouched && env_is boot_slot A && stored_nothing'
device swupdate other.swu; streamed
check "swupdate stream of another key: closed failure with SWUpdate's reason, nothing installed" \
  eval 'closed_once failure "Authentication of all signatures failed" && untouched && env_is boot_slot A'

# The slot SWUpdate writes, by what runs and the boot-loader environment
# (a file a variable, each write logged): a stand-in swupdate logs its
# arguments. Then confirm on that slot ends the trial, on the other fails.
printf '#!/bin/sh\necho "$*" > %s/swupdate.args\n' "$dev" > "$dev/swupdate" && chmod +x "$dev/swupdate"
printf '#!/bin/sh\ncd %s || exit\n%s\n%s\n' "$boot" 'if [ "$1" = get ]; then cat "env.$2"; exit; fi; echo "$*" >> writes' \
  'shift; while [ $# -gt 1 ]; do echo "$2" > "env.$1"; shift 2; done' > "$dev/bootenv" && chmod +x "$dev/bootenv"
mounted=$(awk '$2 == "/" { d = $1 } END { print d }' /proc/self/mounts)
while IFS='|' read -r cmdline roots env target; do
  rm -rf "$boot" "$work/state" && mkdir -p "$boot" && echo "$cmdline" > "$dev/cmdline"
  set -- $env && echo "$1" > "$boot/env.boot_slot" && echo "${2:-}" > "$boot/env.upgrade_available"
  opts="--bootenv $dev/bootenv --cmdline $dev/cmdline --root-devices '$roots' --state $work/state"
  install="PATH=$dev:\$PATH $src/swupdate/install --key $keys/swu.pem $opts x"
  case $target in
    [AB]) check "swupdate install running '$cmdline' ($roots), boot_slot $1: writes $target, one write" eval \
      'sh -c "$install" 2> /dev/null; test $? -eq 10 &&
       file_is "$dev/swupdate.args" "-i x -k $keys/swu.pem -e stable,$target" &&
       file_is "$boot/writes" "set boot_slot $target upgrade_available 1 bootcount 0"' ;;
    *) check "swupdate install running '$cmdline' ($roots), boot_slot $*: refused" \
      refuses "$install" "$target" ;;
  esac
done << EOF
tamrel.slot=A||B 0|B
ro root=/dev/vdb2 quiet|A=/dev/vdb1 B=/dev/vdb2|B|A
quiet|A=/dev/null B=$mounted|A 0|A
quiet|A=/dev/vdb1 B=/dev/vdb2|A 0|cannot tell the running slot
tamrel.slot=A||B 1|slot B waits for its trial boot (upgrade_available=1, running A)
EOF
mkdir -p "$work/state" && echo B > "$work/state/swupdate-slot"
echo tamrel.slot=B > "$dev/cmdline" && echo B > "$boot/env.boot_slot"
check "swupdate confirm running the slot written: trial ended" \
  eval 'sh -c "$src/swupdate/confirm $opts" && file_is "$boot/writes" "set upgrade_available 0 bootcount 0"'
echo tamrel.slot=A > "$dev/cmdline" && echo A > "$boot/env.boot_slot" && rm "$boot/writes"
check "swupdate confirm running the other slot: fails on the fallback, trial ended there" \
  eval 'refuses "$src/swupdate/confirm $opts" "running slot A, not B" &&
        file_is "$boot/writes" "set upgrade_available 0 bootcount 0"'

# Refusals with a reason, before anything is installed.
while IFS='|' read -r what command reason; do check "$what" refuses "$command" "$reason"; done << EOF
rauc install: no service on the bus|DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent $src/rauc/install x|the RAUC service does not answer
rauc install: two files|$src/rauc/install a b|expects one bundle, got 2 files
rauc confirm: nothing installed|$src/rauc/confirm --state $work/none|no record of an installed update
swupdate install: no key|$src/swupdate/install --key /nonexistent x|no readable public key
swupdate install: no boot-loader environment|$src/swupdate/install --key $keys/swu.pem --bootenv false --cmdline $dev/cmdline x|cannot read boot_slot
swupdate install: a state directory others may write|chmod 777 $work/state; $install|writable by others
EOF
echo "installers test: $((SECONDS - start)) s"
[ "$fail" -eq 0 ] && echo "installers tests: all passed"
exit "$fail"
