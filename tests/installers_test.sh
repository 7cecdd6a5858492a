#!/usr/bin/env bash
# The shipped RAUC and SWUpdate integrations (installers/) driven by
# tamrel-agent against tamrel-ddi-server, the installers run as black boxes:
# a signed update is installed into slot B, the test "reboots" (a new boot id,
# the RAUC service restarted with the slot the boot loader picks), and the
# next start confirms. Checked on the device (slot files, the boot loader's
# files) and on the server (one closing feedback, the action's history).
# Needs root (RAUC mounts bundles through a loop device), rauc, mksquashfs,
# dbus-daemon, swupdate, openssl, cpio and curl.
# usage: installers_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/agent/lib.sh"
src=$(cd "$(dirname "$0")/.." && pwd)/installers
[ "$(id -u)" -eq 0 ] || { echo "installers test: needs root"; exit 2; }
for tool in rauc mksquashfs dbus-daemon swupdate openssl cpio curl; do
  command -v $tool > /dev/null || { echo "installers test: $tool is missing"; exit 2; }
done
start=$SECONDS
sign() { openssl "$@" -days 2 2> /dev/null; }
dev=$work/dev boot=$work/dev/boot
mkdir -p "$dev/mnt" "$work/keys"

# RAUC's keyring is a CA; bundles are signed by a certificate it issued.
# other.pem is trusted by neither installer.
(cd "$work/keys" && sign req -x509 -newkey rsa:2048 -nodes -subj /CN=ca -keyout ca.key -out ca.pem \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign
sign req -newkey rsa:2048 -nodes -subj /CN=signer -keyout signer.key -out signer.csr
printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=critical,digitalSignature\n' > ext
sign x509 -req -in signer.csr -CA ca.pem -CAkey ca.key -CAcreateserial -extfile ext -out signer.pem
sign req -x509 -newkey rsa:2048 -nodes -subj /CN=other -keyout other.key -out other.pem
sign req -x509 -newkey rsa:2048 -nodes -subj /O=tamrel/CN=swu -keyout swu.key -out swu.pem)
head -c 300000 /dev/urandom > "$work/image"

# A private system bus whose policy lets root own RAUC's name and anyone
# call it and receive its answers and signals.
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

# The boot loader stand-in: its primary slot and each slot's state in files.
# set-primary makes the slot bootable again; while $boot/hold exists,
# set-primary first waits for $boot/go (an install caught in the act).
cat > "$dev/backend" << EOF
#!/bin/sh
case \$1 in
  get-primary) cat $boot/primary ;;
  get-state) cat $boot/state.\$2 ;;
  set-state) echo \$3 > $boot/state.\$2 ;;
  set-primary)
    if rm $boot/hold 2> /dev/null; then
      echo busy > $boot/busy; for i in \$(seq 200); do [ -e $boot/go ] && break; sleep 0.1; done
    fi
    echo \$2 >> $boot/primaries; echo \$2 > $boot/primary; echo good > $boot/state.\$2 ;;
  *) exit 1 ;;
esac
EOF
# SWUpdate's boot-loader environment stand-in: one file per variable.
printf '#!/bin/sh\nif [ "$1" = get ]; then cat %s/env.$2; else echo "$3" > %s/env.$2; fi\n' \
  "$boot" "$boot" > "$dev/bootenv"
printf '#!/bin/sh\necho reboot >> %s/reboots\n' "$dev" > "$dev/reboot"
chmod +x "$dev/backend" "$dev/bootenv" "$dev/reboot"
printf '%s\n' '[system]' compatible=tamrel-test bootloader=custom "mountprefix=$dev/mnt" \
  "statusfile=$dev/rauc.status" '[handlers]' "bootloader-custom-backend=$dev/backend" \
  '[keyring]' "path=$work/keys/ca.pem" > "$dev/system.conf"
for s in A B; do
  printf '[slot.rootfs.%s]\ndevice=%s/slot%s\ntype=raw\nbootname=%s\n' \
    "$([ $s = A ] && echo 0 || echo 1)" "$dev" $s $s >> "$dev/system.conf"
done

# bundle NAME KEY: a plain RAUC bundle of the image (the manifest is written
# afresh, as rauc bundle rewrites it).
bundle() {
  mkdir -p "$work/b" && cp "$work/image" "$work/b/rootfs.img"
  printf '[update]\ncompatible=tamrel-test\nversion=2\n[bundle]\nformat=plain\n[image.rootfs]\nfilename=rootfs.img\n' \
    > "$work/b/manifest.raucm"
  timeout 60 rauc bundle --cert="$work/keys/$2.pem" --key="$work/keys/$2.key" "$work/b" "$work/$1" > /dev/null 2>&1
}
# swu NAME KEY: a signed SWUpdate image writing the image into slot A or B.
swu() {
  local d=$work/s m; mkdir -p "$d" && cp "$work/image" "$d/image"
  for m in A B; do
    printf '%s: { files: ( { filename = "image"; path = "%s"; sha256 = "%s"; } ); };\n' \
      $m "$dev/slot$m" "$(sha256sum < "$work/image" | cut -c1-64)"
  done | { printf 'software = { version = "2"; hardware-compatibility: [ "1.0" ];\nstable: {\n'
           cat; printf '}; }\n'; } > "$d/sw-description"
  openssl cms -sign -in "$d/sw-description" -out "$d/sw-description.sig" -signer "$work/keys/$2.pem" \
    -inkey "$work/keys/$2.key" -outform DER -nosmimecap -binary
  (cd "$d" && printf '%s\n' sw-description sw-description.sig image | cpio --quiet -o -H crc) > "$work/$1"
}
bundle good.raucb signer && bundle untrusted.raucb other && swu good.swu swu && swu other.swu other ||
  { echo "could not make the update files"; exit 2; }

rauc_pid='' server_pid=''
# A service stopped during an install leaves its bundle mounted.
unmount() { grep -o " $dev/mnt/[^ ]*" /proc/mounts | xargs -r umount; }
trap '[ -z "$rauc_pid" ] || { kill "$rauc_pid"; wait "$rauc_pid"; unmount; }; cleanup' EXIT
# boot SLOT: a new boot id and the RAUC service started again, booted from SLOT.
boots=0
boot() {
  boots=$((boots + 1)); echo "boot$boots" > "$dev/boot-id"
  [ -z "$rauc_pid" ] || { kill "$rauc_pid"; wait "$rauc_pid"; }
  timeout 300 rauc service --conf="$dev/system.conf" --override-boot-slot="$1" >> "$dev/rauc.log" 2>&1 &
  rauc_pid=$!
  for _ in $(seq 100); do (timeout 5 rauc status) > /dev/null 2>&1 && return 0; sleep 0.1; done
  echo "the RAUC service did not start"; return 1
}
# device INSTALLER FILE [SERVER-OPTION...]: blank slots, slot A booted and
# primary, the server offering FILE, the agent configured with the shipped
# fragment.
device() {
  local extra=''; [ "$1" = rauc ] || extra="--bootenv $dev/bootenv "
  [ -z "$server_pid" ] || kill "$server_pid"
  rm -rf "$boot" "$work/art" "$work/state" "$dev/reboots" "$dev/rauc.status"
  mkdir -p "$boot" "$work/art" && cp "$work/$2" "$work/art/"
  for s in A B; do head -c 300000 /dev/zero > "$dev/slot$s"; echo good > "$boot/state.$s"; done
  echo A > "$boot/primary"; echo A > "$boot/env.boot_slot"
  boot A && serve "${@:3}" || return 1
  server_pid=${pids[-1]}
  sed -e "s|/usr/share/tamrel-agent/installers|$src|; s|\(/install\) |\1 $extra--state $work/state |" \
    -e "s|/confirm$|& $extra--state $work/state|; s|^state-dir = .*|state-dir = $work/agent-state|" \
    -e "s|--key [^ ]*|--key $work/keys/swu.pem --swupdate-args '-H board:1.0'|" \
    -e "s|^reboot-command = .*|reboot-command = $dev/reboot|" "$src/$1/agent.conf" >> "$conf"
  echo "boot-id-file = $dev/boot-id" >> "$conf"
  runs=0
}
# agent [PATTERN FILE COMMAND]: one run of tamrel-agent --once; COMMAND is
# run once PATTERN is in FILE (LOG: the agent's output; $apid: its PID).
agent() {
  runs=$((runs + 1)); local log=$work/agent$n.$runs.log
  TMPDIR=$dev timeout 60 "$build/tamrel-agent" --once --config "$conf" > "$log" 2>&1 &
  apid=$!
  [ $# -eq 0 ] || { wait_for "$1" "${2/LOG/$log}" && eval "$3"; }
  wait $apid
}

# Server side: the action closed once with RESULT, its history holding TEXT.
history() {
  curl -s --max-time 10 -H 'Authorization: TargetToken t0k#1' "$address/DEFAULT/controller/v1/dev01/deploymentBase/1?actionHistory=-1"
}
closed_once() {  # RESULT TEXT
  local status=FINISHED; [ "$1" = success ] || status=ERROR
  [ "$(closing | wc -l)" -eq 1 ] && closed_with "$1" && history | grep -q "\"status\":\"$status\"" &&
    history | grep -qF -- "$2"
}
# Device side: which slot holds what, the boot loader's files, reboots asked for.
slot_is() { cmp -s "$dev/slot$1" "$work/$2"; }
head -c 300000 /dev/zero > "$work/zeros"
file_is() { [ "$(cat "$1" 2> /dev/null)" = "$2" ]; }
reboots() { [ "$(cat "$dev/reboots" 2> /dev/null | wc -l)" -eq "$1" ]; }
untouched() { slot_is A zeros && slot_is B zeros && file_is "$boot/primary" A && reboots 0; }
installed_once() { slot_is A zeros && slot_is B image && reboots 1; }

# RAUC: success, bundle of an untrusted signer, fallback to the old slot,
# SIGTERM while `rauc install` runs.
device rauc good.raucb; agent
check "rauc: slot B written, B primary once, reboot asked" \
  eval 'installed_once && file_is "$boot/primary" B && file_is "$boot/primaries" B'
check "rauc: nothing closed before the reboot" test -z "$(closing)"
boot B; agent
check "rauc: confirmed after the reboot, closed success once" closed_once success 'confirm command: exit 0'
check "rauc: booted slot marked good, no second install" \
  eval 'file_is "$boot/state.B" good && file_is "$boot/primaries" B && reboots 1'

device rauc untrusted.raucb; agent
check "rauc untrusted signer: closed failure with RAUC's reason" \
  closed_once failure 'rauc install failed: signature verification failed'
check "rauc untrusted signer: slots and primary untouched, no reboot" untouched

device rauc good.raucb; agent; boot A; agent
check "rauc fallback: closed failure naming the fallback" closed_once failure 'the boot loader fell back'
check "rauc fallback: written slot B marked bad, no second install" \
  eval 'installed_once && file_is "$boot/state.B" bad && file_is "$boot/primaries" B'

# The service goes on with the install after the agent's stop: the next
# start waits for it to end, then installs again.
device rauc good.raucb; : > "$boot/hold"; agent busy "$boot/busy" 'kill -TERM $apid'
check "rauc SIGTERM during install: agent ended with 0, action open" eval "test $? -eq 0 && test -z \"\$(closing)\""
agent 'waiting for the RAUC service' LOG ': > "$boot/go"'; boot B; agent
check "rauc SIGTERM during install: installed again after the first, closed success once" \
  eval 'closed_once success "confirm command: exit 0" && slot_is B image && file_is "$boot/state.B" good &&
        file_is "$boot/primaries" "$(printf "B\nB")" && reboots 1'

# SWUpdate: success, an image corrupted on the way, an image signed by
# another key.
device swupdate good.swu; agent
check "swupdate: slot B written, boot_slot B on trial, reboot asked" \
  eval 'installed_once && file_is "$boot/env.boot_slot" B && file_is "$boot/env.upgrade_available" 1'
echo "boot$((++boots))" > "$dev/boot-id"; agent
check "swupdate: confirmed after the reboot, closed success once, trial ended" \
  eval 'closed_once success "confirm command: exit 0" && file_is "$boot/env.upgrade_available" 0 && reboots 1'

device swupdate good.swu --corrupt good.swu; agent
check "swupdate corrupt image: closed failure on its digest, nothing installed" \
  eval 'closed_once failure "digest mismatch" && untouched && file_is "$boot/env.boot_slot" A'

device swupdate other.swu; agent
check "swupdate image of another key: closed failure with SWUpdate's reason" \
  closed_once failure 'install into slot B: Authentication of all signatures failed'
check "swupdate image of another key: slots and boot_slot untouched, no reboot" \
  eval 'untouched && file_is "$boot/env.boot_slot" A'

# Refusals with a reason, before anything is installed.
refuses() { local out; out=$(timeout 20 sh -c "$1" 2>&1) && return 1; grep -qF -- "$2" <<< "$out"; }
while IFS='|' read -r what command reason; do check "$what" refuses "$command" "$reason"; done << EOF
rauc install: no service on the bus|DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nonexistent $src/rauc/install x|the RAUC service does not answer
rauc install: two files|$src/rauc/install a b|expects one bundle, got 2 files
rauc confirm: nothing installed|$src/rauc/confirm --state $work/none|no record of an installed update
swupdate install: no key|$src/swupdate/install --key /nonexistent x|no readable public key
swupdate install: no boot-loader environment|$src/swupdate/install --key $work/keys/swu.pem --bootenv false x|cannot read boot_slot
EOF

echo "installers test: $((SECONDS - start)) s"
[ "$fail" -eq 0 ] && echo "installers tests: all passed"
exit "$fail"
