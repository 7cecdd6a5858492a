#!/usr/bin/env bash
# Runs the benchmarks: nginx (own config, loopback only) serves generated
# artifacts of 64 MiB and 512 MiB from tmpfs; downloads go to tmpfs too, so
# the disk does not dominate; then the agent's deployments against
# tamrel-ddi-server (scripts/bench-deploy.sh, scripts/bench-stream.sh). Prints every figure with its
# peer and ratio.
set -euo pipefail
cd "$(dirname "$0")/.."
RUNS=${RUNS:-5}
BUILD=${BUILD:-build}
bench=$BUILD/tamrel_bench

if ! command -v nginx >/dev/null; then
  if [ "$(id -u)" -eq 0 ]; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q nginx-light >/dev/null
  else
    echo "Run: sudo apt-get install -y nginx-light" >&2; exit 1
  fi
fi

work=$(mktemp -d /dev/shm/tamrel-bench-XXXXXX)
www=$work/www; out=$work/out; conf=$work/nginx
mkdir -p "$www" "$out" "$conf"
chmod 755 "$work" "$www"
cleanup() {
  [ -f "$conf/nginx.pid" ] && kill "$(cat "$conf/nginx.pid")" 2>/dev/null || true
  sleep 0.2
  rm -rf "$work"
}
trap cleanup EXIT

head -c $((64 << 20)) /dev/urandom > "$www/a64.bin"
chmod 644 "$www/a64.bin"
head -c $((512 << 20)) /dev/urandom > "$www/a512.bin"
chmod 644 "$www/a512.bin"

# A controller base document over HTTPS, for the polls with and without a
# kept connection.
mkdir -p "$www/DEFAULT/controller/v1"
echo '{"config":{"polling":{"sleep":"00:05:00"}},"_links":{}}' > "$www/DEFAULT/controller/v1/dev01"
chmod -R a+rX "$www/DEFAULT"
openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=bench \
  -addext subjectAltName=IP:127.0.0.1 -keyout "$conf/tls.key" -out "$conf/tls.pem" 2>/dev/null

# nginx takes no port 0: the kernel names a free port, nginx binds it before
# it returns, and should another program have taken the port in between,
# nginx fails at once and the next free port is tried.
nginx_conf() {
cat > "$conf/nginx.conf" <<CONF
worker_processes 1;
pid $conf/nginx.pid;
error_log $conf/error.log;
events { worker_connections 64; }
http {
  access_log off;
  sendfile on;
  client_body_temp_path $conf/body;
  proxy_temp_path $conf/proxy;
  fastcgi_temp_path $conf/fastcgi;
  uwsgi_temp_path $conf/uwsgi;
  scgi_temp_path $conf/scgi;
  server {
    listen 127.0.0.1:$port;
    root $www;
  }
  server {
    listen 127.0.0.1:$tls ssl;
    ssl_certificate $conf/tls.pem;
    ssl_certificate_key $conf/tls.key;
    default_type application/json;
    root $www;
  }
}
CONF
}
for attempt in 1 2 3 4 5; do
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  tls=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
  nginx_conf
  nginx -c "$conf/nginx.conf" -p "$conf" 2> "$conf/start.log" && break
  grep -q 'Address already in use' "$conf/start.log" && [ "$attempt" -lt 5 ] ||
    { echo "nginx did not start:" >&2; cat "$conf/start.log" >&2; exit 1; }
done
curl -sf -o /dev/null "http://127.0.0.1:$port/a64.bin" || { echo "nginx does not serve the artifacts" >&2; exit 1; }

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs)"
echo "libcurl $(curl --version | head -1 | cut -d' ' -f2), $(openssl version)"
echo "runs per contender: $RUNS (median [min..max])"
for size in 64 512; do
  echo; echo "== artifact of $size MiB"
  url=http://127.0.0.1:$port/a$size.bin
  "$bench" download "$url" "$www/a$size.bin" "$out" "$RUNS"
  "$bench" verify "$www/a$size.bin" "$out" "$RUNS"
  "$bench" resume "$url" "$www/a$size.bin" "$out" "$RUNS"
  rm -f "$out"/*
done

echo; echo "== peak RSS of one download + verification (separate processes)"
for size in 64 512; do
  printf '%4s MiB: ' "$size"
  "$bench" memory "http://127.0.0.1:$port/a$size.bin" "$www/a$size.bin" "$out"
  rm -f "$out"/*
done

echo; echo "== parsing"
"$bench" parse 50
if "$bench" poll 1 >/dev/null 2>&1; then
  echo; echo "== polling"
  "$bench" poll 2000
fi
if "$bench" https-polls "https://127.0.0.1:$tls" "$conf/tls.pem" 1 1 >/dev/null 2>&1; then
  "$bench" https-polls "https://127.0.0.1:$tls" "$conf/tls.pem" 100 "$RUNS"
fi

echo; echo "== deploy: tamrel-agent against tamrel-ddi-server (scripts/bench-deploy.sh)"
RUNS=$RUNS BUILD=$BUILD scripts/bench-deploy.sh

echo; echo "== streaming deploy: install-mode = stream (scripts/bench-stream.sh)"
RUNS=$RUNS BUILD=$BUILD scripts/bench-stream.sh
