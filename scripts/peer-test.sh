#!/usr/bin/env bash
# SWUpdate in suricatta (hawkBit) mode, a client written independently of this
# project, against tamrel-ddi-server: the client's attributes are asked for
# once, a signed image installs and its success is confirmed after a restart,
# the same once more over HTTPS with the server's throwaway CA given to the
# client, a corrupt image is reported as a failure, a cut transfer is retried
# to a whole file, and a cancel request during the download is answered.
# Usage: scripts/peer-test.sh BUILD_DIR   (BUILD_DIR holds tamrel-ddi-server)
set -euo pipefail

build=${1:?usage: peer-test.sh BUILD_DIR}
for tool in swupdate openssl cpio; do
  command -v "$tool" > /dev/null || { echo "peer-test: $tool is missing" >&2; exit 2; }
done
[ -x "$build/tamrel-ddi-server" ] || { echo "peer-test: no $build/tamrel-ddi-server" >&2; exit 2; }

start=$SECONDS
work=$(mktemp -d "${TMPDIR:-/tmp}/peer-test.XXXXXX")
# Servers and clients still running are this shell's jobs.
cleanup() {
  local p
  for p in $(jobs -p); do kill "$p" 2> /dev/null || true; done
  wait 2> /dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# A copy, so that a rebuild during the run does not replace the server under it.
server=$work/tamrel-ddi-server
cp "$build/tamrel-ddi-server" "$server"

# The image: one file of random bytes for the rawfile handler, described and
# signed (CMS, self-signed certificate) as the Debian build of SWUpdate expects.
payload=$work/payload.bin
install_dir=$work/install
make_image() {
  local d=$work/image
  mkdir -p "$d" "$install_dir" "$work/artifacts"
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj "/O=tamrel/CN=peer-test" \
    -keyout "$d/key.pem" -out "$work/cert.pem" 2> /dev/null
  head -c 262144 /dev/urandom > "$payload"
  cp "$payload" "$d/payload.bin"
  cat > "$d/sw-description" << EOF
software =
{
	version = "1.0.0";
	hardware-compatibility: [ "1.0" ];
	files: (
		{
			filename = "payload.bin";
			path = "$install_dir/payload.bin";
			sha256 = "$(sha256sum "$payload" | cut -d' ' -f1)";
		}
	);
}
EOF
  openssl cms -sign -in "$d/sw-description" -out "$d/sw-description.sig" -signer "$work/cert.pem" \
    -inkey "$d/key.pem" -outform DER -nosmimecap -binary
  # sw-description first, its signature right after it.
  (cd "$d" && printf '%s\n' sw-description sw-description.sig payload.bin | cpio --quiet -o -H crc) \
    > "$work/artifacts/peer.swu"
}

# The client's configuration: attributes it sends when the server asks for them.
cat > "$work/swupdate.cfg" << EOF
globals : {
};
identify : (
	{ name = "serial"; value = "peer-01"; }
);
EOF
# Over HTTPS the client trusts the CA that the server writes (--ca-out).
{ cat "$work/swupdate.cfg"; printf 'suricatta : {\n\tcafile = "%s";\n};\n' "$work/ca.pem"; } \
  > "$work/swupdate-https.cfg"
client_cfg=$work/swupdate.cfg

# view FILE: the server's output with each POST or PUT body on its request line.
view() { sed '/^\(POST\|PUT\) /{N;s/\n */ /}' "$1"; }
# count FILE ERE [AFTER]: the number of lines of the view after line AFTER that match.
count() { view "$1" | tail -n +"$((${3:-0} + 1))" | grep -c -E -- "$2" || true; }
# line_of FILE ERE [AFTER]: the number of the first matching line after AFTER.
line_of() {
  local n
  n=$(view "$1" | tail -n +"$((${3:-0} + 1))" | grep -n -m1 -E -- "$2" | cut -d: -f1)
  [ -n "$n" ] && echo $((n + ${3:-0}))
}
# wait_for FILE ERE SECONDS [N [AFTER]]: until N lines (default 1) after AFTER match.
wait_for() {
  local deadline=$((SECONDS + $3))
  while [ "$(count "$1" "$2" "${5:-0}")" -lt "${4:-1}" ]; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# What the server prints for the client's requests.
base_poll='^GET /DEFAULT/controller/v1/dev01(\?.*)?$'
feedback='^POST /DEFAULT/controller/v1/dev01/deploymentBase/1/feedback '
closing="$feedback"'.*"execution": *"closed"'
installed="$feedback.*All Chunks Installed"
offered='^GET /DEFAULT/controller/v1/dev01/(deploymentBase|cancelAction)/|^(GET|HEAD) /artifacts/'

# start_server NAME OPTION...: the server on a free loopback port, polled every
# second; its address read from its first line. One that exits before it
# prints the address fails at once.
start_server() {
  srv_log=$work/$1.server
  : > "$srv_log"
  shift
  "$server" --port 0 --artifacts "$work/artifacts" --sleep 00:00:01 "$@" > "$srv_log" 2>&1 &
  srv_pid=$!
  local alive=1 deadline=$((SECONDS + 5))
  while :; do
    kill -0 "$srv_pid" 2> /dev/null || alive=0
    url=$(sed -n '1s|^DDI server on \(https\?://[^/]*\)/.*|\1|p' "$srv_log")
    [ -z "$url" ] || return 0
    [ "$alive" -eq 1 ] && [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# start_client NAME SURICATTA-OPTION...: swupdate polling the server every
# second, retrying a broken download after a second. Its update state is kept
# in memory by the "none" bootloader, so a new run starts without one; its
# sockets and temporary files go to its own TMPDIR.
start_client() {
  cli_log=$work/$1.swupdate
  mkdir -p "$work/$1.tmp"
  TMPDIR=$work/$1.tmp timeout 60 swupdate -f "$client_cfg" -k "$work/cert.pem" -H peer:1.0 -l 5 \
    -u "-t DEFAULT -u $url -i dev01 -p 1 -r 3 -w 1 ${*:2}" > "$cli_log" 2>&1 &
  cli_pid=$!
}

stop() {
  [ -n "${1:-}" ] || return 0
  kill "$1" 2> /dev/null || true
  wait "$1" 2> /dev/null || true
}

# no_error_answers: the server answered every request of the client's runs
# with a success status.
no_error_answers() {
  ! grep -h -E 'returned HTTP status code [45][0-9][0-9]' "$work"/"$case_name"*.swupdate
}

# after_close LINE: the client polls on twice after the action closed at LINE
# and is offered neither the action nor its artifact again.
after_close() {
  wait_for "$srv_log" "$base_poll" 10 2 "$1" || { why="the client stopped polling"; return 1; }
  [ "$(count "$srv_log" "$offered" "$1")" -eq 0 ] \
    || { why="the closed action was offered or fetched again"; return 1; }
}

case_success() {  # [SERVER-OPTION...]
  local token=peer-secret at
  start_server "$case_name" --token "$token" "$@" || { why="the server did not start"; return 1; }
  start_client "$case_name-install" -k "$token"
  wait_for "$srv_log" "$installed|$closing" 20 \
    || { why="no feedback that the image was installed"; return 1; }
  stop "$cli_pid"
  [ "$(count "$srv_log" "$closing")" -eq 0 ] || { why="the install run closed the action"; return 1; }
  # Polls followed the attributes; once sent, they are not asked for again.
  [ "$(count "$srv_log" '^PUT /DEFAULT/controller/v1/dev01/configData ')" -eq 1 ] \
    || { why="the client did not send its attributes exactly once"; return 1; }
  cmp -s "$payload" "$install_dir/payload.bin" \
    || { why="the installed file differs from the image's"; return 1; }

  # A restart as after a reboot into the new software, which confirms it.
  at=$(view "$srv_log" | wc -l)
  start_client "$case_name-confirm" -k "$token" -c 2
  wait_for "$srv_log" "$closing" 15 1 "$at" || { why="the confirming run sent no closing feedback"; return 1; }
  at=$(line_of "$srv_log" "$closing" "$at")
  view "$srv_log" | sed -n "${at}p" | grep -q -E '"finished": *"success"' \
    || { why="the closing feedback is no success"; return 1; }
  wait_for "$srv_log" '^action 1 closed: success$' 5 1 "$at" \
    || { why="the server did not close action 1 as a success"; return 1; }
  after_close "$at" || return 1
  [ "$(count "$srv_log" '^GET /artifacts/')" -eq 1 ] || { why="the image was downloaded again"; return 1; }
  no_error_answers || { why="the server answered a request with an error"; return 1; }
}

case_https() {
  client_cfg=$work/swupdate-https.cfg case_success --https --ca-out "$work/ca.pem"
}

case_corrupt() {
  local at
  start_server "$case_name" --corrupt peer.swu || { why="the server did not start"; return 1; }
  start_client "$case_name"
  wait_for "$srv_log" "$closing" 20 || { why="no closing feedback"; return 1; }
  at=$(line_of "$srv_log" "$closing")
  view "$srv_log" | sed -n "${at}p" | grep -q -E '"finished": *"failure"' \
    || { why="the closing feedback is no failure"; return 1; }
  wait_for "$srv_log" '^action 1 closed: failure$' 5 1 "$at" \
    || { why="the server did not close action 1 as a failure"; return 1; }
  after_close "$at" || return 1
  no_error_answers || { why="the server answered a request with an error"; return 1; }
}

case_cut() {
  start_server "$case_name" --drop-after 100000:peer.swu || { why="the server did not start"; return 1; }
  start_client "$case_name"
  wait_for "$srv_log" "$installed|$closing" 25 \
    || { why="no feedback that the image was installed"; return 1; }
  [ "$(count "$srv_log" "$closing")" -eq 0 ] || { why="the client gave up on the image"; return 1; }
  [ "$(count "$srv_log" '^GET /artifacts/peer.swu')" -ge 2 ] \
    || { why="the image was fetched once: the transfer was not cut"; return 1; }
  cmp -s "$payload" "$install_dir/payload.bin" \
    || { why="the installed file differs from the image's"; return 1; }
  no_error_answers || { why="the server answered a request with an error"; return 1; }
}

# The client polls three times before it downloads (the first poll
# fetches the attributes); the image comes in 64 KiB pieces a second
# apart, so the cancel request of the fourth poll reaches it mid-transfer.
case_cancel() {
  local at
  start_server "$case_name" --cancel-after-polls 3 --slow 1000 || { why="the server did not start"; return 1; }
  start_client "$case_name"
  wait_for "$srv_log" '^POST /DEFAULT/controller/v1/dev01/cancelAction/[0-9]+/feedback' 20 \
    || { why="the client did not answer a cancel request"; return 1; }
  wait_for "$srv_log" '^action 1 canceled$' 5 \
    || { why="the server did not close action 1 as canceled"; return 1; }
  at=$(line_of "$srv_log" '^action 1 canceled$')
  after_close "$at" || return 1
  [ ! -e "$install_dir/payload.bin" ] || { why="the canceled image was installed"; return 1; }
  no_error_answers || { why="the server answered a request with an error"; return 1; }
}

make_image
failures=0
for case_name in success https corrupt cut cancel; do
  why='' srv_pid='' cli_pid='' srv_log=/dev/null cli_log=/dev/null
  rm -f "$install_dir/payload.bin"
  case_start=$SECONDS
  if "case_$case_name"; then
    echo "PASS $case_name ($((SECONDS - case_start))s)"
  else
    failures=$((failures + 1))
    echo "FAIL $case_name: $why"
    echo "--- server output (long lines cut)"
    cut -c1-300 "$srv_log"
    echo "--- swupdate log, last lines"
    tail -n 40 "$cli_log"
    echo "---"
  fi
  stop "$cli_pid"
  stop "$srv_pid"
done
echo "peer-test: $failures failed, $((SECONDS - start))s"
[ "$failures" -eq 0 ]
