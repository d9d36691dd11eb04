#!/usr/bin/env bash
# service_files_test.sh BUILD: installs the daemon's files into a folder and checks the service files there: validity,
# limits and hardening.
set -euo pipefail

readonly BUILD=$1
# Upper bounds for the exposure level of "systemd-analyze security", times 10. The daemon needs root, flash and network.
readonly -A EXPOSURE_LIMIT=([kova_ctlserver]=48 [kova-bus]=9)

work=$(mktemp -d)
readonly root=$work/root
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# Installs the programs and units that the service files refer to, too.
install_root() {
  DESTDIR=$root cmake --install "$BUILD" --prefix /usr --component ctlserver >/dev/null
  cp -a /usr/lib/systemd/system/. "$root/usr/lib/systemd/system/"
  install -D "$(command -v dbus-daemon)" "$root/usr/bin/dbus-daemon"
}

# Treats any output as a failure: systemd prints nothing for a valid unit.
is_accepted() {
  local output
  output=$(systemd-analyze --root="$root" --man=no verify "$1.service" 2>&1) || output+=" refused"
  echo "$output"
  [ -z "$output" ]
}

is_hardened() {
  systemd-analyze --root="$root" --no-pager --offline=true --threshold="${EXPOSURE_LIMIT[$1]}" security "$1.service"
}

exposure() { is_hardened "$1" | grep -oE 'level for .*: [0-9.]+' | grep -oE '[0-9.]+$'; }

# sets UNIT LINE...: whether the unit has these lines.
sets() {
  local unit=$1 line
  shift
  for line in "$@"; do grep -qxF "$line" "$root/usr/lib/systemd/system/$unit.service" || return 1; done
}

# runs_under SERVICE OPTION...: whether runit starts the service under these limits, see chpst(8).
runs_under() { grep -qE "^exec chpst .*${*:2} .*" "$root/etc/sv/$1/run"; }

install_root
expect "the daemon's memory is limited under systemd" sets kova_ctlserver MemoryHigh=576M MemoryMax=640M
expect "the daemon's descriptors are limited under systemd" sets kova_ctlserver LimitNOFILE=4096
expect "the bus's memory is limited under systemd" sets kova-bus LimitDATA=512M MemoryMax=576M
expect "only the group can enter the folder of the bus socket" sets kova-bus Group=kova RuntimeDirectoryMode=0750
expect "the daemon's memory and descriptors are limited under runit" runs_under kova_ctlserver -d 536870912 -o 4096
expect "the bus's memory is limited under runit" runs_under kova_bus -d 536870912
for unit in kova-bus kova_ctlserver; do
  expect "systemd accepts $unit.service" is_accepted "$unit"
  expect "the exposure of $unit.service is at most ${EXPOSURE_LIMIT[$unit]} tenths" is_hardened "$unit"
  printf '      exposure %s of 10\n' "$(exposure "$unit" || true)"
done
report
