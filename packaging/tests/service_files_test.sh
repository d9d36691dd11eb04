#!/usr/bin/env bash
# service_files_test.sh BUILD: installs the daemon's files into a folder and holds the service files in it to what
# systemd and the hardening demand.
set -euo pipefail

readonly BUILD=$1
# What "systemd-analyze security" may find at most, in tenths of 10: the daemon's job needs root, flash and network.
readonly -A EXPOSURE_LIMIT=([kova_ctlserver]=48 [kova-bus]=9)

work=$(mktemp -d)
readonly root=$work/root
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# What the units start and refer to has to be there, too.
install_root() {
  DESTDIR=$root cmake --install "$BUILD" --prefix /usr --component ctlserver >/dev/null
  cp -a /usr/lib/systemd/system/. "$root/usr/lib/systemd/system/"
  install -D "$(command -v dbus-daemon)" "$root/usr/bin/dbus-daemon"
}

# Of a unit that is as it should be systemd says nothing, not even a warning.
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

install_root
for unit in kova-bus kova_ctlserver; do
  expect "systemd accepts $unit.service" is_accepted "$unit"
  expect "$unit.service is exposed by no more than ${EXPOSURE_LIMIT[$unit]} tenths" is_hardened "$unit"
  printf '      exposure %s of 10\n' "$(exposure "$unit" || true)"
done
report
