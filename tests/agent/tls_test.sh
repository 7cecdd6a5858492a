#!/usr/bin/env bash
# TLS and credentials end to end: tamrel-ddi-server's throwaway CA (--ca-out)
# vouches for 127.0.0.1 and localhost and a given certificate (--tls-cert/
# --tls-key) is served as is; the agent trusting that CA through ca-file
# completes a deployment, directly and through a CONNECT proxy
# (connectproxy.py, which counts the tunnels). Against a server requiring
# client certificates (--client-cert-out): its pair accepted, none or
# another CA's refused in the handshake, an untrusted server certificate
# named; the start-up checks of certificate, key and password; a gateway
# token accepted and a wrong one refused.
# usage: tls_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
proxy=$(dirname "$0")/connectproxy.py
artifact 300000
c=/DEFAULT/controller/v1/dev01
trusted() {  # CA-FILE URL: the poll answered over a verified connection
  curl -s -f -o /dev/null --cacert "$1" -H 'Authorization: TargetToken t0k#1' "$2"
}
proxy_start() {  # LOG: starts connectproxy.py, sets $port
  python3 "$proxy" > "$1" 2>&1 &
  pids+=($!)
  wait_for 'listening on' "$1" || return 1
  port=$(sed -n 's/^listening on //p' "$1")
}

serve --https --ca-out "$work/ca.pem"
port=${address##*:}
check "the CA vouches for 127.0.0.1 and localhost" eval \
  'trusted "$work/ca.pem" "https://127.0.0.1:$port$c" && trusted "$work/ca.pem" "https://localhost:$port$c"'
run_agent "ca-file = $work/ca.pem"
check "ca-file: the deployment completes over HTTPS" eval \
  'closed_with success && cmp -s "$work/art/image.bin" "$dl/firmware/image.bin"'

proxy_start "$work/proxy.log"
serve --https --ca-out "$work/ca2.pem"
run_agent "ca-file = $work/ca2.pem" "proxy = http://127.0.0.1:$port"
tunnels=$(grep -c '^CONNECT 127.0.0.1:' "$work/proxy.log")
check "proxy: the deployment completes, every connection through it, reused ($tunnels)" eval \
  'closed_with success && [ "$tunnels" -ge 1 ] && [ "$tunnels" -lt "$(grep -c "^[A-Z]* /" "$log")" ]'

openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=given -addext subjectAltName=IP:127.0.0.1 \
  -keyout "$work/given.key" -out "$work/given.pem" 2> /dev/null
serve --tls-cert "$work/given.pem" --tls-key "$work/given.key"
check "--tls-cert: the given certificate is served" trusted "$work/given.pem" "$address$c"

# Client certificates: the server requires a pair of its own client CA
# (--client-cert-out). Of our own CA: a device pair valid 2 days, one
# expired, a key of another pair; and an encrypted copy of the server's key.
mkdir -p "$work/mtls"
serve --https --client-cert-out "$work/mtls"
mtls=$work/mtls
(
  cd "$work" || exit 1
  key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1" 2> /dev/null; }
  key cca.key; key dev.key; key old.key; key other.key
  openssl req -x509 -key cca.key -days 2 -subj /CN=client-ca -out cca.pem
  printf '[ca]\ndefault_ca=c\n[c]\ndatabase=index\nnew_certs_dir=.\nserial=serial\n'`
    `'default_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n' > ca.cnf
  touch index; echo 01 > serial
  sign() {  # KEY OUT [openssl ca options]
    openssl req -new -key "$1" -subj "/CN=$2" -out "$2.csr" &&
      openssl ca -batch -config ca.cnf -cert cca.pem -keyfile cca.key -in "$2.csr" -out "$2.pem" \
        -notext "${@:3}"
  }
  sign dev.key dev -days 2 && sign old.key old -startdate 20200101000000Z -enddate 20200102000000Z
  openssl pkey -in "$mtls/client.key" -aes256 -passout pass:s3cret -out locked.key
  echo s3cret > password; echo wrong > wrong-password
  chmod 600 dev.key other.key old.key locked.key "$mtls/client.key"
) > "$work/certs.log" 2>&1 || { cat "$work/certs.log"; exit 1; }
while IFS='|' read -r what settings status says; do
  sed -i '/^\(client-\|ca-file\)/d' "$conf"
  run_agent $settings
  code=$?
  cp "$work/agent$n.log" "$work/${what// /-}.log"
  check "$what: exit $status, says '$says'" eval \
    'test $code -eq "$status" && grep -q -- "$says" "$work/agent$n.log"'
done <<EOF
client certificate accepted|ca-file=$mtls/ca.pem client-cert=$mtls/client.pem client-key=$mtls/client.key|0|deployment 1: success
encrypted key with its password|ca-file=$mtls/ca.pem client-cert=$mtls/client.pem client-key=$work/locked.key client-key-password-file=$work/password|0|config data: 2 attributes sent
no client certificate: refused|ca-file=$mtls/ca.pem|3|TLS handshake refused by the server: 
a certificate of another CA: refused|ca-file=$mtls/ca.pem client-cert=$work/dev.pem client-key=$work/dev.key|3|TLS handshake refused by the server: 
server CA not trusted|ca-file=$work/cca.pem client-cert=$mtls/client.pem client-key=$mtls/client.key|3|server certificate not trusted: 
certificate missing|client-cert=$work/none.pem|2|cannot read $work/none.pem
key of another pair|client-cert=$work/dev.pem client-key=$work/other.key|2|does not match
expired certificate|client-cert=$work/old.pem client-key=$work/old.key|2|old.pem has expired
wrong password|client-cert=$mtls/client.pem client-key=$work/locked.key client-key-password-file=$work/wrong-password|2|or the password is wrong
CA file missing|ca-file=$work/none.pem|2|cannot read $work/none.pem
EOF
check "a certificate expiring within 30 days: a warning naming its line" grep -q \
  "agent$n.conf:[0-9]*: $work/dev.pem expires in [0-9]* day" "$work/a-certificate-of-another-CA:-refused.log"
chmod 644 "$work/dev.key"
sed -i '/^\(client-\|ca-file\)/d' "$conf"
run_agent "client-cert = $work/dev.pem" "client-key = $work/dev.key"
check "a key others may read: a warning naming its line" \
  grep -q "agent$n.conf:[0-9]*: $work/dev.key may be read by group or others" "$work/agent$n.log"

# A gateway token instead of the target token: the right one is accepted,
# a wrong one refused.
while IFS='|' read -r what token status says; do
  serve --gateway-token 'g4t#1'
  sed -i '/^token/d' "$conf"
  run_agent "gateway-token = $token"
  code=$?
  check "$what: exit $status, says '$says'" eval \
    'test $code -eq "$status" && grep -q -- "$says" "$work/agent$n.log"'
done <<'EOF'
gateway token accepted|g4t#1|0|deployment 1: success
wrong gateway token refused|other|3|refused the credentials (HTTP 401)
EOF
finish
