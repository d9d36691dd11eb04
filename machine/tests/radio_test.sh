#!/usr/bin/env bash
# radio_test.sh: tests the Wi-Fi figures of the emulated camera with radios that its kernel simulates. Exit status 77:
# QEMU is not installed. KOVA_BUILD is the folder of the programs, built for 64-bit ARM.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly NO_RADIO="0 200" ALONE="-100 0" # signal and quality

radio() { inside sh /tmp/radio "$@"; }

# told_figures SECTION KEY...: prints figures of the daemon's statistics.
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
  expect "no radio is reported" tells "$NO_RADIO"
}

associates() {
  expect "radios appear" radio load
  expect "a radio without the default route is not reported" tells "$NO_RADIO"
  expect "an access point serves" radio serve
  expect "the camera associates" radio associate
  expect "its figures match the kernel's" eventually agrees
}

# agrees_on DBM: whether both the daemon and the kernel report this level.
agrees_on() { [ "$(agrees)" = "$1" ]; }

follows_the_signal() {
  local level
  for level in -30 -52 -67 -90; do
    expect "the signal falls to $level dBm" radio weaken "$level"
    expect "$level dBm is reported" eventually agrees_on "$level"
    expect "$level dBm has the right quality" tells "$level $(((level + 100) * 2))"
  done
}

counts_what_comes_by_radio() {
  local before after told
  before=$(inside cat /sys/class/net/wlan1/statistics/rx_bytes)
  inside ping -c 5 -i 0.2 -q 192.168.7.1 >/dev/null
  told=$(told_figures network bytesRx)
  after=$(inside cat /sys/class/net/wlan1/statistics/rx_bytes)
  expect "received bytes are those of the radio: $before, $told, $after" \
    test "$told" -gt "$before" -a "$told" -le "$after"
}

loses_its_access_point() {
  expect "the access point goes away" radio leave
  expect "no signal is reported" eventually tells "$ALONE"
  expect "the access point comes back" radio serve
  expect "the camera associates again" radio associate
  expect "its figures match the kernel's again" eventually agrees
  expect "the camera disconnects" radio drop
  expect "no signal is reported again" eventually tells "$ALONE"
}

# Reloading the driver changes the family id of nl80211.
survives_its_driver() {
  expect "the driver is unloaded" radio unload
  expect "no radio is reported" eventually tells "$NO_RADIO"
  expect "the driver is loaded again" radio load
  expect "the access point serves" radio serve
  expect "the camera associates" radio associate
  expect "its figures match the kernel's again" eventually agrees
  expect "the driver is unloaded between two queries" radio unload
  expect "the driver is loaded before the second query" radio load
  radio serve >/dev/null
  expect "the camera associates again" radio associate
  expect "its figures are right at once" agrees
  expect "the daemon has not been restarted" printed_inside "pidof kova_ctlserver" "$daemon"
  expect_not "the daemon has logged no error" inside grep "Failed to read Wi-Fi" /var/log/messages
}

[ $# -gt 0 ] || set -- has_no_radio associates follows_the_signal counts_what_comes_by_radio loses_its_access_point \
  survives_its_driver
run_parts "$@"
