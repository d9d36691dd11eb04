#!/usr/bin/env bash
# radio_test.sh: tests the Wi-Fi figures of the emulated camera, by the radios that its kernel simulates. Exit status 77:
# QEMU is not installed. KOVA_BUILD is the folder of the programs, built for 64-bit ARM.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly NO_RADIO="0 200" ALONE="-100 0" # signal and quality

radio() { inside sh /tmp/radio "$@"; }

# told_figures SECTION KEY...: what the daemon says.
told_figures() {
  inside kovactl --json stats "$1" | python3 -c '
import json, sys
said = json.load(sys.stdin)["result"][sys.argv[1]]
print(*(said[key] for key in sys.argv[2:]))' "$@"
}
tells() { [ "$(told_figures wifi signalStrength quality)" = "$1" ]; }
agrees() {
  radio compare >"$work/compared"
  "$here/compare_wifi" "$work/compared"
}

has_no_radio() {
  make_image
  expect "the machine starts" start_machine
  put_inside "$here/radio" /tmp/radio
  daemon=$(inside pidof kova_ctlserver)
  expect_not "it has no radio" inside test -e /sys/class/ieee80211
  expect "a camera without one tells of none" tells "$NO_RADIO"
}

associates() {
  expect "radios appear" radio load
  expect "one that is not the way out is not told of" tells "$NO_RADIO"
  expect "an access point serves" radio serve
  expect "the camera associates" radio associate
  expect "its figures are the kernel's" eventually agrees
}

# agrees_on DBM: the daemon and the kernel have this level.
agrees_on() { [ "$(agrees)" = "$1" ]; }

follows_the_signal() {
  local level
  for level in -30 -52 -67 -90; do
    expect "the signal falls to $level dBm" radio weaken "$level"
    expect "which is told" eventually agrees_on "$level"
    expect "with its quality" tells "$level $(((level + 100) * 2))"
  done
}

counts_what_comes_by_radio() {
  local before after told
  before=$(inside cat /sys/class/net/wlan1/statistics/rx_bytes)
  inside ping -c 5 -i 0.2 -q 192.168.7.1 >/dev/null
  told=$(told_figures network bytesRx)
  after=$(inside cat /sys/class/net/wlan1/statistics/rx_bytes)
  expect "bytes are those of the radio: $before, $told, $after" \
    test "$told" -gt "$before" -a "$told" -le "$after"
}

loses_its_access_point() {
  expect "the access point goes away" radio leave
  expect "no signal is told" eventually tells "$ALONE"
  expect "it comes back" radio serve
  expect "and so does the camera" radio associate
  expect "with its figures" eventually agrees
  expect "the camera leaves" radio drop
  expect "no signal is told again" eventually tells "$ALONE"
}

# The family of nl80211 gets another number.
survives_its_driver() {
  expect "the driver is unloaded" radio unload
  expect "no radio is told" eventually tells "$NO_RADIO"
  expect "it is loaded again" radio load
  expect "the access point serves" radio serve
  expect "the camera associates" radio associate
  expect "its figures are the kernel's again" eventually agrees
  expect "the driver can change under a daemon that has asked it" radio unload
  expect "and be loaded before it asks again" radio load
  radio serve >/dev/null
  expect "the camera associates" radio associate
  expect "and its figures are right at once" agrees
  expect "by the daemon that has run since the boot" printed_inside "pidof kova_ctlserver" "$daemon"
  expect_not "without a complaint" inside grep "Failed to read Wi-Fi" /var/log/messages
}

[ $# -gt 0 ] || set -- has_no_radio associates follows_the_signal counts_what_comes_by_radio loses_its_access_point \
  survives_its_driver
run_parts "$@"
