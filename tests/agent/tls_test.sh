#!/usr/bin/env bash
# TLS and credentials end to end: tamrel-ddi-server's throwaway CA (--ca-out)
# vouches for 127.0.0.1 and localhost and a given certificate (--tls-cert/
# --tls-key) is served as is; the agent trusting that CA through ca-file
# completes a deployment, directly and through a CONNECT proxy
# (connectproxy.py, which counts the tunnels); a server of TLS 1.1 only and a
# proxy asking for authentication each named. Against a server requiring
# client certificates (--client-cert-out): its pair accepted, none or
# another CA's refused in the handshake, an untrusted server certificate
# named; the start-up checks of certificate, key and password; an expired
# certificate, with a token or without, polled on; a gateway
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
proxy_start() {  # LOG [OPTION]: starts connectproxy.py, sets $port
  python3 "$proxy" "${@:2}" > "$1" 2>&1 &
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

# TLS below 1.2 is refused even where the system's OpenSSL allows it (an
# OPENSSL_CONF down to TLS 1.0): a server offering only TLS 1.1 gets no
# request, and the poll says why.
timeout 120 openssl s_server -accept 127.0.0.1:0 -tls1_1 -cipher DEFAULT@SECLEVEL=0 -www \
  -cert "$work/given.pem" -key "$work/given.key" > "$work/tls11.log" 2>&1 &
pids+=($!)
wait_for '^ACCEPT' "$work/tls11.log"
printf 'openssl_conf = c\n[c]\nssl_conf = s\n[s]\nsystem_default = d\n[d]\nMinProtocol = TLSv1\nCipherString = DEFAULT@SECLEVEL=0\n' \
  > "$work/legacy.cnf"
sed -i "s|^address = .*|address = https://$(sed -n 's/^ACCEPT //p' "$work/tls11.log")|" "$conf"
OPENSSL_CONF=$work/legacy.cnf run_agent "ca-file = $work/given.pem"
code=$?
check "a server of TLS 1.1 only: exit 3, says 'TLS protocol version refused'" eval \
  'test $code -eq 3 && grep -q "poll: TLS protocol version refused" "$(alog)"'

# A proxy that asks for authentication is named as such.
proxy_start "$work/proxy407.log" --ask-auth
serve --https --ca-out "$work/ca3.pem"
run_agent "ca-file = $work/ca3.pem" "proxy = http://127.0.0.1:$port"
code=$?
check "a proxy answering 407: exit 3, says 'proxy refused authentication (HTTP 407)'" eval \
  'test $code -eq 3 && grep -q "poll: proxy refused authentication (HTTP 407)" "$(alog)"'

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
  cp dev.key open.key && chmod 644 open.key
) > "$work/certs.log" 2>&1 || { cat "$work/certs.log"; exit 1; }
# A server that closes the handshake gives no reason: named by OpenSSL's
# alert when there is one.
refused='poll: \(the server refused the client certificate\|TLS handshake refused by the server\): '
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
no client certificate: refused|ca-file=$mtls/ca.pem|3|$refused
a certificate of another CA: refused|ca-file=$mtls/ca.pem client-cert=$work/dev.pem client-key=$work/dev.key|3|$refused
server CA not trusted|ca-file=$work/cca.pem client-cert=$mtls/client.pem client-key=$mtls/client.key|3|server certificate not trusted: 
certificate missing|client-cert=$work/none.pem|2|cannot read $work/none.pem
key of another pair|client-cert=$work/dev.pem client-key=$work/other.key|2|does not match
expired certificate, with a token: a warning, polls|ca-file=$mtls/ca.pem client-cert=$work/old.pem client-key=$work/old.key|3|old.pem has expired; the token still authenticates
wrong password|client-cert=$mtls/client.pem client-key=$work/locked.key client-key-password-file=$work/wrong-password|2|or the password is wrong
CA file missing|ca-file=$work/none.pem|2|cannot read $work/none.pem
a key others may read: refused|client-cert=$work/dev.pem client-key=$work/open.key|2|:[0-9]*: client-key: $work/open.key holds a secret but has mode 0644
EOF
# Expired without a token: every poll fails, but the agent goes on (3, not
# 2) to pick up a renewed certificate.
sed -i '/^\(client-\|ca-file\|token\)/d' "$conf"
run_agent "ca-file = $mtls/ca.pem" "client-cert = $work/old.pem" "client-key = $work/old.key"
code=$?
check "expired certificate, no token: exit 3, an error line, the poll refused" eval \
  'test $code -eq 3 && grep -q "old.pem has expired; every request fails until it is renewed" "$(alog)" &&
   grep -q "$refused" "$(alog)"'
check "a certificate expiring within 30 days: a warning naming its line" grep -q \
  "agent$n.conf:[0-9]*: $work/dev.pem expires in [0-9]* day" "$work/a-certificate-of-another-CA:-refused.log"

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
