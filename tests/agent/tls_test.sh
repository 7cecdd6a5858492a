#!/usr/bin/env bash
# tamrel-ddi-server over TLS as a verifying client meets it: its throwaway
# CA (--ca-out) vouches for both 127.0.0.1 and localhost, a given
# certificate (--tls-cert/--tls-key) is served as is, and tamrel-agent
# completes a deployment over HTTPS once it trusts the CA. The agent reads
# the system bundle, so the CA is added to it only inside a private mount
# namespace: that part needs root and is skipped without.
# usage: tls_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
mkdir -p "$work/art"
head -c 300000 /dev/urandom > "$work/art/image.bin"
c=/DEFAULT/controller/v1/dev01
trusted() {  # CA-FILE URL: the poll answered over a verified connection
  curl -s -f -o /dev/null --cacert "$1" -H 'Authorization: TargetToken t0k#1' "$2"
}

serve --https --ca-out "$work/ca.pem"
port=${address##*:}
check "the CA vouches for 127.0.0.1 and localhost" eval \
  'trusted "$work/ca.pem" "https://127.0.0.1:$port$c" && trusted "$work/ca.pem" "https://localhost:$port$c"'
ca_server=$address

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=given -addext subjectAltName=IP:127.0.0.1 \
  -keyout "$work/given.key" -out "$work/given.pem" 2> /dev/null
serve --tls-cert "$work/given.pem" --tls-key "$work/given.key"
check "--tls-cert: the given certificate is served" trusted "$work/given.pem" "$address$c"

bundle=/etc/ssl/certs/ca-certificates.crt
if [ "$(id -u)" != 0 ] || [ ! -f "$bundle" ] || ! unshare -m true 2> /dev/null; then
  echo "skipped: the agent over HTTPS needs root, $bundle and a mount namespace (unshare -m)"
  exit $fail
fi
cat "$bundle" "$work/ca.pem" > "$work/bundle.pem"
system=$(sha256sum < "$bundle")
address=$ca_server
sed -i "s|^address = .*|address = $address|" "$conf"
echo 'install-command = true' >> "$conf"
unshare -m sh -c 'mount --make-rprivate / && mount --bind "$1" "$2" && exec "$3" --once --config "$4"' \
  sh "$work/bundle.pem" "$bundle" "$agent" "$conf" > "$work/agent.log" 2>&1
check "the agent trusting the CA completes the deployment over HTTPS" eval \
  'log=$work/server1.log closed_with success && cmp -s "$work/art/image.bin" "$dl/firmware/image.bin"'
check "the system bundle outside the namespace is untouched" test "$(sha256sum < "$bundle")" = "$system"
exit $fail
