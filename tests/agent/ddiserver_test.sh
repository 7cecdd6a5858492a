#!/usr/bin/env bash
# tamrel-ddi-server as a hawkBit stand-in for any client, spoken to with
# curl: what it refuses (400, 404, 405, 410), with which error document or
# with none, that the first poll it answers already links the deployment,
# feedback read as JSON whatever its layout (its progress printed), the
# links it offers as the action runs, is canceled or closes, installedBase
# and actionHistory, client certificates (--client-cert-out, --client-ca),
# --gateway-token, --confirm-required, several modules (--module,
# --metadata), percent-encoded artifact URLs, one-shot faults that HEAD
# requests neither meet nor spend, --help, a port in use and bad options.
# usage: ddiserver_test.sh BUILD_DIR   (KEEP=1 keeps the work directory)
set -uo pipefail
. "$(dirname "$0")/lib.sh"
artifact 5000

# request METHOD PATH [BODY]: prints the status; the answer lands in $work/answer.
request() {
  local body=()
  [ -z "${3:-}" ] || body=(-H 'Content-Type: application/json' --data-binary "$3")
  curl -s -o "$work/answer" -w '%{http_code}' -X "$1" -H 'Authorization: TargetToken t0k#1' \
    "${body[@]}" "$address$2"
}
answered() {  # status, error code ("" any body, "-" no body), METHOD PATH [BODY]
  local want=$1 code=$2; shift 2
  [ "$(request "$@")" = "$want" ] || return 1
  case $code in
    "") ;;
    -) [ ! -s "$work/answer" ] ;;
    *) grep -q "\"errorCode\":\"$code\"" "$work/answer" ;;
  esac
}
links() { request GET "$c" > /dev/null; grep -o '"[a-zA-Z]*":{"href"' "$work/answer" | cut -d'"' -f2 | tr '\n' ' '; }
fb() { printf '{"status":{"execution":"%s","result":{"finished":"%s"}%s}}' "$1" "$2" "${3:-}"; }

serve
c=/DEFAULT/controller/v1/dev01
d=$c/deploymentBase/1/feedback
unreadable=hawkbit.server.error.rest.body.notReadable
while IFS='|' read -r what want code method path body; do
  check "refused: $what ($want)" answered "$want" "$code" "$method" "$path" "$body"
done <<EOF
a path with "//"|400|hawkbit.server.error.rest.param.invalid|GET|/$c|
feedback that is no JSON|400|$unreadable|POST|$d|closed
feedback without status|400|$unreadable|POST|$d|{"time":"20140511T121314"}
feedback without result.finished|400|$unreadable|POST|$d|{"status":{"execution":"closed","result":{}}}
execution not spelled as hawkBit spells it|400|$unreadable|POST|$d|$(fb Closed success)
unknown result|400|$unreadable|POST|$d|$(fb closed ok)
progress without a number|400|$unreadable|POST|$d|{"status":{"execution":"proceeding","result":{"finished":"none","progress":{"cnt":"2"}}}}
details that are no strings|400|$unreadable|POST|$d|{"status":{"execution":"proceeding","result":{"finished":"none"},"details":[1]}}
feedback to an unknown action|404|hawkbit.server.error.repo.entitiyNotFound|POST|$c/deploymentBase/7/feedback|$(fb closed success)
an unknown action's document|404|hawkbit.server.error.repo.entitiyNotFound|GET|$c/deploymentBase/7|
installedBase of an unknown action|404|hawkbit.server.error.repo.entitiyNotFound|GET|$c/installedBase/7|
installedBase of an action still active|404|-|GET|$c/installedBase/1|
cancelAction of an action not being canceled|404|-|GET|$c/cancelAction/1|
a cancel request never made|404|hawkbit.server.error.repo.entitiyNotFound|GET|$c/cancelAction/7|
a POST to the controller base|405|hawkbit.server.error.rest.method.notSupported|POST|$c|{}
configData without attributes|400|$unreadable|PUT|$c/configData|{"data":{}}
configData with a key over 128|400|$unreadable|PUT|$c/configData|{"data":{"$(printf 'k%.0s' $(seq 129))":"v"}}
configData with an unknown mode|400|$unreadable|PUT|$c/configData|{"data":{"k":"v"},"mode":"add"}
EOF
check "refused feedback ends nothing" eval '! grep -q "^action" "$log"'

check "Accept: application/json gets application/json, text/html 406" eval \
  'curl -s -o /dev/null -w "%{content_type}" -H "Accept: application/json" -H "Authorization: TargetToken t0k#1" \
     "$address$c" | grep -qx application/json &&
   test "$(curl -s -o /dev/null -w "%{http_code}" -H "Accept: text/html" -H "Authorization: TargetToken t0k#1" "$address$c")" = 406'
check "first contact: deployment and configData offered" test "$(links)" = "deploymentBase configData "
check "configData accepted, then no longer asked for" eval \
  'answered 200 "" PUT $c/configData "{\"data\":{\"serial\":\"42\"}}" && test "$(links)" = "deploymentBase "'
check "feedback with legacy fields and any layout is recorded, its progress printed" eval \
  'answered 200 "" POST "$d" "{ \"id\" : \"1\", \"time\" : \"20140511T121314\", \"status\" : { \"result\" : { \"progress\" : { \"of\" : 5, \"cnt\" : 2 }, \"finished\" : \"none\" }, \"execution\" : \"proceeding\", \"details\" : [ \"Write firmware\", \"Download done\" ] } }" &&
   grep -qx "action 1: feedback proceeding 2 of 5" "$log"'
check "\"downloaded\" does not end an action that installs" answered 200 "" POST "$d" "$(fb downloaded none)"
check "actionHistory: newest first, limited to N" eval \
  'answered 200 "" GET "$c/deploymentBase/1?actionHistory=3" &&
   grep -q "\"actionHistory\":{\"status\":\"RUNNING\",\"messages\":\[\"downloaded: none\",\"Download done\",\"Write firmware\"\]}" "$work/answer"'
check "closed with spaces after the colons ends the action" eval \
  'answered 200 "" POST "$d" "{\"status\": {\"execution\": \"closed\", \"result\": {\"finished\": \"success\"}}}" &&
   grep -qx "action 1 closed: success" "$log"'
check "after a success: installedBase and configData offered, no deployment" \
  test "$(links)" = "installedBase configData "
check "installedBase answers with the action's history" eval \
  'answered 200 "" GET "$c/installedBase/1?actionHistory=-1" && grep -q "\"status\":\"FINISHED\"" "$work/answer" &&
   grep -q "Assignment initiated by user" "$work/answer"'
check "feedback to a closed action: 410 without a body" answered 410 - POST "$d" "$(fb closed success)"

# Cancel after two polls; the cancel request carries the action's id.
serve --cancel-after-polls 2 --ask-config-data
check "before the cancel request: the deployment" eval 'links > /dev/null; test "$(links)" = "deploymentBase configData "'
check "after N polls: only the cancel request (and configData, asked for at every poll)" \
  test "$(links)" = "cancelAction configData "
check "cancelAction names the action to stop; its deploymentBase is 404 without a body" eval \
  'answered 200 "" GET $c/cancelAction/1 && grep -q "\"stopId\":\"1\"" "$work/answer" &&
   answered 404 - GET $c/deploymentBase/1'
check "cancel feedback \"canceled\" closes the action as canceled" eval \
  'answered 200 "" POST $c/cancelAction/1/feedback "$(fb canceled success)" && grep -qx "action 1 canceled" "$log" &&
   test "$(links)" = "configData " && answered 410 - POST "$d" "$(fb closed success)"'

serve --cancel-after-polls 1
check "a rejected cancel request is withdrawn and not offered again" eval \
  'links > /dev/null; test "$(links)" = "cancelAction configData " &&
   answered 200 "" POST $c/cancelAction/1/feedback "$(fb rejected none)" && grep -qx "action 1: cancel rejected" "$log" &&
   test "$(links)" = "deploymentBase configData " && test "$(links)" = "deploymentBase configData "'

# Client certificates: --client-cert-out writes a pair the server takes
# and the CA to trust; --client-ca takes certificates of a CA of one's own.
# Without an accepted certificate the handshake fails (curl: 000).
mkdir -p "$work/tls"
tls() {  # prints the status of a poll over TLS with the given curl options
  curl -s -o /dev/null -w '%{http_code}' -H 'Authorization: TargetToken t0k#1' "$@" "$address$c"
}
serve --https --client-cert-out "$work/tls"
pair=(--cacert "$work/tls/ca.pem" --cert "$work/tls/client.pem" --key "$work/tls/client.key")
check "--client-cert-out: its pair accepted, its key private, no certificate refused" eval \
  'test "$(tls "${pair[@]}")" = 200 && test "$(stat -c %a "$work/tls/client.key")" = 600 &&
   test "$(tls --cacert "$work/tls/ca.pem")" = 000'
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=own-ca -keyout "$work/own-ca.key" \
  -out "$work/own-ca.pem" 2> /dev/null
openssl req -newkey rsa:2048 -nodes -subj /CN=dev01 -keyout "$work/dev.key" -out "$work/dev.csr" 2> /dev/null
openssl x509 -req -in "$work/dev.csr" -CA "$work/own-ca.pem" -CAkey "$work/own-ca.key" \
  -CAcreateserial -days 1 -out "$work/dev.pem" 2> /dev/null
serve --https --ca-out "$work/server-ca.pem" --client-ca "$work/own-ca.pem"
check "--client-ca: its CA's certificate accepted, another CA's or none refused" eval \
  'test "$(tls --cacert "$work/server-ca.pem" --cert "$work/dev.pem" --key "$work/dev.key")" = 200 &&
   test "$(tls --cacert "$work/server-ca.pem" --cert "$work/tls/client.pem" --key "$work/tls/client.key")" = 000 &&
   test "$(tls --cacert "$work/server-ca.pem")" = 000'

serve --gateway-token 'g4t#2'
as() { curl -s -o "$work/answer" -w '%{http_code}' -H "Authorization: $1" "$address$c"; }
check "--gateway-token: it and the target token accepted, a wrong one 401 without a body" eval \
  'test "$(as "GatewayToken g4t#2")" = 200 && test "$(as "TargetToken t0k#1")" = 200 &&
   test "$(as "GatewayToken t0k#1")" = 401 && test ! -s "$work/answer"'

serve --confirm-required
check "--confirm-required: the action waits for confirmation, then runs" eval \
  'test "$(links)" = "confirmationBase configData " && answered 404 - GET $c/deploymentBase/1 &&
   answered 200 - POST $c/confirmationBase/1/feedback "{\"confirmation\":\"confirmed\",\"details\":[\"ok\"]}" &&
   grep -qx "action 1 confirmed: ok" "$log" && test "$(links)" = "deploymentBase configData "'

mkdir -p "$work/odd"
printf odd > "$work/odd/a b#c.bin"
serve --artifacts "$work/odd"
check "an artifact's URL is percent-encoded and fetches the file" eval \
  'answered 200 "" GET $c/deploymentBase/1 && url=$(grep -o "http://[^\"]*a%20b%23c.bin" "$work/answer" | head -n1) &&
   test "$(curl -s -H "Authorization: TargetToken t0k#1" "$url")" = odd'

# Three modules: chunks in order, files of one name kept apart by module,
# metadata on its own chunk only.
for part in jvm os bApp; do mkdir -p "$work/$part" && echo "$part" > "$work/$part/binary.tgz"; done
serve --module "jvm:oneapp runtime:1.0.87:$work/jvm" --module "os:one Firmware:1.0.81:$work/os" \
  --module "bApp:oneapplication:1.0.67:$work/bApp" --metadata 'bApp:aMetadataKey=a value'
check "--module: chunks in order, each its own files, metadata on its chunk" eval \
  'answered 200 "" GET $c/deploymentBase/1 && test "$(grep -o "\"part\":\"[a-zA-Z]*\"" "$work/answer" | tr -d "\n")" = \
     "\"part\":\"jvm\"\"part\":\"os\"\"part\":\"bApp\"" && test "$(grep -o "\"metadata\"" "$work/answer" | wc -l)" = 1 &&
   grep -q "\"metadata\":\[{\"key\":\"aMetadataKey\",\"value\":\"a value\"}\]}\]" "$work/answer" &&
   url=$(grep -o "http://[^\"]*/softwaremodules/2/artifacts/binary.tgz" "$work/answer" | head -n1) &&
   test "$(curl -s -H "Authorization: TargetToken t0k#1" "$url")" = os'

# One-shot faults are for the first GET of the chosen artifact; HEAD is answered as GET without a body.
fetch() { curl -s -H 'Authorization: TargetToken t0k#1' "$@" "$address/artifacts/image.bin"; }
for fault in '--drop-after 1000:image.bin' '--fail-first 503:image.bin'; do
  serve $fault
    check "$fault: HEAD has length and Accept-Ranges, twice" eval \
    '(for _ in 1 2; do fetch -I | tr -d "\r" > "$work/head"; grep -qx "Content-Length: 5000" "$work/head" &&
     grep -qx "Accept-Ranges: bytes" "$work/head" || exit 1; done)'
  fetch -o "$work/got"
  check "$fault: the first GET meets it, the second is whole" eval \
    'test "$(stat -c %s "$work/got")" -lt 5000 && fetch -o "$work/got" && cmp -s "$work/got" "$work/art/image.bin"'
done

check "MD5SUM file as hawkBit writes it" test "$(fetch -o - | md5sum | cut -c1-32)  image.bin" = \
  "$(curl -s -H 'Authorization: TargetToken t0k#1' "$address/artifacts/image.bin.MD5SUM")"

serve --download-only
check "\"downloaded\" closes a download-only action" eval \
  'answered 200 "" POST "$d" "$(fb downloaded none)" && grep -qx "action 1 closed: downloaded" "$log"'

# Digests of a 256 MiB artifact take a while: the server computes them
# before it binds its port and prints its address, so that its first answer
# already links the deployment.
mkdir -p "$work/big"
truncate -s 256M "$work/big/big.img"
"$server" --port 0 --artifacts "$work/big" > "$work/big.log" 2>&1 &
pids+=($!)
address_of $! "$work/big.log" && first=$(curl -s --max-time 60 "$address$c")
check "first answered poll links the deployment" grep -q '"deploymentBase":{"href"' <<< "${first:-}"

# The command line: --help wherever it stands, and a port in use refused
# (the port of the server still running above).
port=${address##*:}
while IFS='|' read -r what options status says; do
  # shellcheck disable=SC2086
  timeout 30 "$server" $options > "$work/cli.log" 2>&1
  code=$?
  check "$what: exit $status, says '$says'" eval \
    'test $code -eq $status && grep -q -- "$says" "$work/cli.log"'
done <<EOF
--help after another option|--port 0 --help|0|--artifacts DIR
--help alone|--help|0|--artifacts DIR
a port in use|--port $port --artifacts $work/art|2|port $port on 127.0.0.1: Address already in use
metadata for no module|--module os:fw:1:$work/os --metadata app:k=v|2|--metadata: .app. is the part of no --module before it
EOF
finish
