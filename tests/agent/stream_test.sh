#!/usr/bin/env bash
# install-mode stream and url against tamrel-ddi-server: the install command
# reads the artifact from its standard input (or fetches it from the URL it
# gets) and nothing is stored in download-dir. The stand-in installer copies
# its input to a file and notes whether that input ended.
# usage: stream_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 3000000
cat > "$work/standin" <<'EOF'
#!/bin/sh
# $1: the artifact's name; its bytes on standard input.
r=$RECORD
echo $$ > "$r/pid"; env | grep '^TAMREL_' > "$r/env"; echo "$1" > "$r/arg"
cat > "$r/got" || exit 3
echo end > "$r/end"
EOF
cat > "$work/early" <<'EOF'
#!/bin/sh
head -c 1000 > /dev/null; echo "not my format" >&2; exit 5
EOF
# Reads all but the last byte and exits 0.
printf '#!/bin/sh\nhead -c 2999999 > /dev/null\n' > "$work/short"
chmod +x "$work/standin" "$work/early" "$work/short"
fresh() { rec=$work/rec$n; mkdir -p "$rec"; export RECORD=$rec; }
# The install lock (without a state-dir) is the only file allowed there.
dl_empty() { [ -z "$(find "$dl" -type f ! -name .install.lock 2>/dev/null)" ]; }
# Ended: no such process, or one waiting to be reaped by init.
gone() { local s; s=$(awk '{print $3}' "/proc/$(cat "$rec/pid")/stat" 2>/dev/null); [ "${s:-Z}" = Z ]; }

# Each row: case | server options | command | outcome | end seen | file identical | detail
while IFS='|' read -r what opts cmd outcome ended same detail; do
  serve $opts && fresh
  run_agent 'install-mode = stream' "install-command = $work/$cmd \"\$@\"" 'download-retries = 1' 'download-timeout-s = 1'
  check "$what: $outcome" closed_with "$outcome"
  [ "$ended" = yes ] && check "$what: end seen" test -f "$rec/end"
  [ "$ended" = no ] && check "$what: end never seen" test ! -f "$rec/end"
  [ "$same" = yes ] && check "$what: identical" cmp -s "$rec/got" "$work/art/image.bin"
  [ -f "$rec/pid" ] && check "$what: installer ended" gone
  check "$what: nothing in download-dir" dl_empty
  [ -z "$detail" ] || check "$what: says '$detail'" grep -q -- "$detail" "$log"
done <<'EOF'
good stream|--action 1|standin|success|yes|yes|streamed and verified
digest mismatch held back|--corrupt image.bin|standin|failure|no|no|digest mismatch (sha1, md5, sha256); the end of the stream was held back
connection cut, resumed|--drop-after 1200000|standin|success|yes|yes|
stalled, cut each time|--fault artifact=stall|standin|failure|no|no|stalled) after 2 attempt(s)
range ignored|--drop-after 1200000 --ignore-range|standin|failure|no|no|ignored the range request
installer exits early|--action 1|early|failure|no|no|exited before reading the whole artifact.*exit 5.*not my format
installer one byte short, exit 0|--action 1|short|failure|-|-|exited before reading the whole artifact\|stopped reading before the end
EOF
check "environment: size, digests, action" grep -q "TAMREL_ARTIFACT_SIZE=3000000" "$work/rec1/env"
check "environment: sha256" grep -q "TAMREL_ARTIFACT_SHA256=$(sha256sum < "$work/art/image.bin" | cut -c1-64)" "$work/rec1/env"
check "argument: the artifact's name" grep -qx image.bin "$work/rec1/arg"

# A chunk of two artifacts is refused before anything runs.
cp "$work/art/image.bin" "$work/art/second.bin"
serve && fresh
run_agent 'install-mode = stream' "install-command = $work/standin \"\$@\""
check "two artifacts: failure" closed_with failure
check "two artifacts: says why" grep -q 'exactly one artifact; \\"firmware\\" has 2' "$log"
check "two artifacts: nothing ran" test ! -f "$rec/pid"
rm "$work/art/second.bin"

# SIGTERM mid-stream: the installer is ended, the action stays open.
serve --slow 100 && fresh
printf '%s\n' 'install-mode = stream' "install-command = $work/standin \"\$@\"" >> "$conf"
"$agent" --once --config "$conf" > "$(alog)" 2>&1 &
apid=$!
wait_until test -s "$rec/got"
kill -TERM "$apid"; wait "$apid"
check "SIGTERM: installer ended" gone
check "SIGTERM: end never seen" test ! -f "$rec/end"
left_open() { ! closing > /dev/null; }
check "SIGTERM: action left open" left_open
check "SIGTERM: reported interrupted" grep -q "stream interrupted at" "$log"

# url mode: the command fetches the URL named in the credentials file,
# which only the agent's user may read and which is gone after the run; the
# URL is on no command line ($1 is the artifact's name). One a killed run
# left is removed at start.
cat > "$work/fetcher" <<'EOF'
#!/bin/sh
r=$RECORD
stat -c %a "$TAMREL_CREDENTIALS_FILE" > "$r/mode"; cp "$TAMREL_CREDENTIALS_FILE" "$r/creds"
echo "$TAMREL_CREDENTIALS_FILE" > "$r/path"; echo "$*" > "$r/arg"
curl -sfS -K "$TAMREL_CREDENTIALS_FILE" -o "$r/got"
EOF
chmod +x "$work/fetcher"
serve && fresh
mkdir -p "$dl" && echo 'header = "Authorization: TargetToken old"' > "$dl/.credentials-Ab12Cd"
run_agent 'install-mode = url' "install-command = $work/fetcher \"\$@\""
check "url: success" closed_with success
check "url: fetched with the credentials" cmp -s "$rec/got" "$work/art/image.bin"
check "url: credentials file mode 600" grep -qx 600 "$rec/mode"
check "url: the URL and the token header in it" eval \
  'grep -q "^url = \"$address/.*/image.bin\"" "$rec/creds" && grep -q "^header = \"Authorization: TargetToken t0k#1\"" "$rec/creds"'
check "url: only the artifact's name as argument" grep -qx image.bin "$rec/arg"
check "url: credentials file removed" test ! -e "$(cat "$rec/path")"
check "url: a killed run's credentials file removed at start" eval \
  'test ! -e "$dl/.credentials-Ab12Cd" && grep -q "removed .*credentials-Ab12Cd" "$(alog)"'
check "url: nothing else in download-dir" dl_empty
finish
