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
# An upgrade under systemd (its run directory stands for it here) restarts
# the service once the new agent is configured, and stops nothing before;
# deb-systemd-invoke, which does either, is recorded instead.
mkdir -p /srv/fake /run/systemd/system
printf '#!/bin/sh\necho "$@" >> /srv/fake/invoked\n' > /srv/fake/deb-systemd-invoke
chmod +x /srv/fake/deb-systemd-invoke
check "an upgrade restarts the service and stops it at no other point" sh -c '
  PATH=/srv/fake:$PATH dpkg -i /srv/debs/tamrel-agent_*.deb > /dev/null &&
  test "$(cat /srv/fake/invoked)" = "restart tamrel-agent.service"'
rm -rf /run/systemd/system
check "every script the RAUC and SWUpdate fragments name is installed and executable" sh -c '
  paths=$(sed -n "s|^[a-z]*-command = \(/usr/share/[^ ]*\).*|\1|p" /usr/share/tamrel-agent/installers/*/agent.conf)
  [ "$(echo "$paths" | wc -l)" -eq 4 ] && for p in $paths; do test -x "$p" || { echo "missing: $p"; exit 1; }; done'
check "the agent carries no test server (links no cpp-httplib)" \
  sh -c '! readelf -d /usr/bin/tamrel-agent | grep "NEEDED.*httplib"'
# With the shipped configuration, as the unit starts it; the agent embeds
# the library, so its package needs no other of ours.
check "tamrel-agent --once (shipped configuration) completes a deployment" \
  env BASE_CONFIG=/etc/tamrel/agent.conf /srv/tests/consumer/agent_once.sh /usr/bin
check "tamrel-agent does not need the library's package" \
  sh -c '! dpkg-query -W -f="\${Depends}" tamrel-agent | grep -q libtamrelcore1'
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
