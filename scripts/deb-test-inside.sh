#!/bin/bash
# The checks of scripts/deb-test.sh, run inside the chroot; /srv/debs holds the
# packages as a local apt source, /srv/tests the consumer hosts. Every check
# runs; the list of failed ones ends the output.
set -uo pipefail
export DEBIAN_FRONTEND=noninteractive
failed=()
check() {  # what, command...; its output is shown when it fails
  local what=$1; shift
  if "$@" > /tmp/check.log 2>&1; then
    echo "ok: $what"
  else
    sed 's/^/    /' /tmp/check.log | tail -n 40
    echo "FAILED: $what"
    failed+=("$what")
  fi
}
snapshot() {  # every path outside what apt, dpkg and the tests change
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path /srv \
    -o -path /root -o -path /run -o -path /var/lib/apt -o -path /var/lib/dpkg \
    -o -path /var/cache -o -path /var/log \) -prune -o -print | sort
}

apt-get update -q > /dev/null || exit 1
snapshot > /tmp/before
check "apt-get install tamrel-agent tamrel-ddi-server" \
  apt-get install -y -q tamrel-agent tamrel-ddi-server
check "tamrel-agent --version" sh -c 'tamrel-agent --version | tee /dev/stderr | grep -q 1\.0\.0'
# The chroot has no man(1): the Documentation= check below finds the pages.
check "systemd-analyze verify accepts the unit" \
  systemd-analyze verify --man=no /lib/systemd/system/tamrel-agent.service
check "every path in the unit's ExecStart is installed" sh -c '
  for path in $(sed -n "s/^ExecStart=//p" /lib/systemd/system/tamrel-agent.service); do
    case $path in /*) test -e "$path" || { echo "missing: $path"; exit 1; } ;; esac
  done'
check "the unit is installed but not enabled" \
  sh -c '! systemctl is-enabled -q tamrel-agent.service'
check "the package made /var/lib/tamrel/downloads and state" \
  test -d /var/lib/tamrel/downloads -a -d /var/lib/tamrel/state
check "agent.conf is a conffile, readable by root alone" sh -c '
  dpkg-query -W -f="\${Conffiles}" tamrel-agent | grep -q /etc/tamrel/agent.conf &&
  test "$(stat -c %a:%U /etc/tamrel/agent.conf)" = 600:root'
check "every file the unit's Documentation= names is installed" sh -c '
  for doc in $(sed -n "s/^Documentation=//p" /lib/systemd/system/tamrel-agent.service); do
    case $doc in
      file:*) test -f "${doc#file:}" ;;
      man:*) page=${doc#man:}; sec=${page#*(}; sec=${sec%)}
             test -f "/usr/share/man/man$sec/${page%(*}.$sec.gz" ;;
    esac || { echo "missing: $doc"; exit 1; }
  done'
check "every command agent.conf names (its RAUC and SWUpdate blocks) is installed" sh -c '
  paths=$(sed -n "s|^#\?[a-z]*-command = \(/usr/share/[^ ]*\).*|\1|p" /etc/tamrel/agent.conf)
  [ "$(echo "$paths" | wc -l)" -eq 4 ] && for p in $paths; do test -x "$p" || { echo "missing: $p"; exit 1; }; done'
check "every script the RAUC and SWUpdate fragments name is installed and executable" sh -c '
  paths=$(sed -n "s|^[a-z]*-command = \(/usr/share/[^ ]*\).*|\1|p" /usr/share/tamrel-agent/installers/*/agent.conf)
  [ "$(echo "$paths" | wc -l)" -eq 4 ] && for p in $paths; do test -x "$p" || { echo "missing: $p"; exit 1; }; done'
check "the example attribute scripts are installed and run" sh -c '
  test -x /usr/share/tamrel-agent/attributes/rauc-slot &&
  /usr/share/tamrel-agent/attributes/os-release | grep -q "^os.name=."'
check "the agent carries no test server (links no cpp-httplib)" \
  sh -c '! readelf -d /usr/bin/tamrel-agent | grep "NEEDED.*httplib"'
# With the shipped configuration, as the unit starts it; the agent embeds
# the library, so its package needs no other of ours.
check "tamrel-agent --once (shipped configuration) completes a deployment" \
  env BASE_CONFIG=/etc/tamrel/agent.conf /srv/tests/consumer/agent_once.sh /usr/bin
check "tamrel-agent does not need the library's package" \
  sh -c '! dpkg-query -W -f="\${Depends}" tamrel-agent | grep -q libtamrelcore1'
# The agent installing a newer tamrel-agent through the shipped install-deb
# (docs/agent.md, "Updating the agent itself"), under stand-ins for systemd:
# its run directory; systemd-run giving the command a session of its own,
# "active" while it runs; a restart that stops the agent (recorded, with
# every other start or stop the package asks for). The first run is stopped
# by the upgrade it started, dpkg completes all the same, the second run
# closes the action.
mkdir -p /srv/fake /srv/self/art /run/systemd/system
cat > /srv/fake/systemd-run <<'FAKE'
#!/bin/sh
while [ "${1#-}" != "$1" ]; do case $1 in --unit=*) unit=${1#--unit=} ;; esac; shift; done
setsid "$@" & echo $! > "/srv/fake/$unit.pid"
wait $!
FAKE
cat > /srv/fake/systemctl <<'FAKE'
#!/bin/sh
[ "$1 $2" = "-q is-active" ] || exit 0
kill -0 "$(cat "/srv/fake/$3.pid" 2> /dev/null)" 2> /dev/null
FAKE
cat > /srv/fake/deb-systemd-invoke <<'FAKE'
#!/bin/sh
echo "$@" >> /srv/fake/invoked
pid=$(cat /srv/self/agent.pid 2> /dev/null) || exit 0
kill -TERM "$pid" && while kill -0 "$pid" 2> /dev/null; do sleep 0.1; done
FAKE
chmod +x /srv/fake/*
dpkg-deb -R /srv/debs/tamrel-agent_*_amd64.deb /srv/self/pkg
sed -i 's/^Version: .*/&+self1/' /srv/self/pkg/DEBIAN/control
dpkg-deb -b /srv/self/pkg /srv/self/art/tamrel-agent.deb > /dev/null
self_update() {
  local server address
  tamrel-ddi-server --port 0 --token secret --artifacts /srv/self/art > /srv/self/server.log 2>&1 &
  server=$!
  until address=$(sed -n '1s|^DDI server on \(http://[0-9.:]*\)/.*|\1|p' /srv/self/server.log) &&
    [ -n "$address" ]; do kill -0 $server || return 1; sleep 0.1; done
  printf '%s\n' "address = $address" "tenant-id = DEFAULT" "controller-id = dev01" "token = secret" \
    "download-dir = /srv/self/dl" "state-dir = /srv/self/state" \
    'install-command = /bin/sh /usr/share/doc/tamrel-agent/examples/install-deb "$@"' \
    > /srv/self/agent.conf
  chmod 600 /srv/self/agent.conf
  for run in 1 2; do
    PATH=/srv/fake:$PATH tamrel-agent --once --config /srv/self/agent.conf > /srv/self/agent$run.log 2>&1 &
    echo $! > /srv/self/agent.pid
    wait $! || { kill $server; return 1; }
    rm /srv/self/agent.pid
    [ $run = 2 ] || grep -q "interrupted" /srv/self/server.log || { kill $server; return 1; }
  done
  kill $server
  test "$(dpkg-query -W -f '${Status} ${Version}' tamrel-agent)" = "install ok installed 1.0.0+self1" &&
    test "$(cat /srv/fake/invoked)" = "restart tamrel-agent.service" &&
    grep -q "^action 1 closed: success" /srv/self/server.log
}
shown() { "$@" || { tail -n 8 /srv/self/*.log /srv/fake/invoked; return 1; }; }
check "the agent updates its own package: restarted once, dpkg completes, the action succeeds" \
  shown self_update
rm -rf /run/systemd/system

# What an agent leaves in its directories must go with the package.
mkdir -p /var/lib/tamrel/downloads/firmware && touch /var/lib/tamrel/downloads/firmware/image.bin

check "apt-get install libtamrelcore-dev" apt-get install -y -q libtamrelcore-dev
check "hosts built with find_package and pkg-config load the plug-in" \
  /srv/tests/consumer/run.sh --system

check "apt-get purge" apt-get purge -y -q --autoremove \
  tamrel-agent tamrel-ddi-server libtamrelcore-dev libtamrelcore1
snapshot > /tmp/after
check "purge leaves nothing behind" diff /tmp/before /tmp/after

if [ ${#failed[@]} -gt 0 ]; then
  printf 'FAILED: %s\n' "${failed[@]}"
  exit 1
fi
echo "all package checks passed"
