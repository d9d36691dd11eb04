#!/usr/bin/env bash
# watchdog_test.sh: tests that the hardware watchdog resets a frozen emulated camera. Exit status 77: QEMU is not
# installed. KOVA_BUILD is the folder of the programs, built for 64-bit ARM.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly PERIOD_S=15

starts_with_a_watchdog() {
  make_image
  expect "the machine starts" start_machine --watchdog "$PERIOD_S"
  expect "its kernel has the watchdog" printed_inside "cat /sys/class/watchdog/watchdog0/identity" "i6300ESB timer"
  expect "the watchdog is active" eventually printed_inside "cat /sys/class/watchdog/watchdog0/state" active
}

lets_a_healthy_camera_be() {
  local boot
  boot=$(boot_count)
  inside sleep "$((2 * PERIOD_S))"
  expect "a camera that answers is not reset" test "$(boot_count)" = "$boot"
}

# resets WHAT COMMAND...: expects a reset after the command, which freezes WHAT.
resets() {
  local boot what=$1
  shift
  boot=$(boot_count)
  inside "$@" >/dev/null 2>&1 || true # the reset loses its exit status
  expect "a frozen $what resets the camera" run_machine wait "$one" "$((boot + 1))"
}

resets_a_frozen_daemon() {
  # shellcheck disable=SC2016 # expanded inside
  resets "daemon" sh -c 'kill -STOP "$(pidof kova_ctlserver)"'
}

# While fwupdate runs, the daemon does not answer. A script named fwupdate and a stopped daemon simulate this.
waits_for_an_installation() {
  printf '#!/bin/sh\nsleep %d\n' $((3 * PERIOD_S)) >"$work/fwupdate"
  put_inside "$work/fwupdate" /tmp/fwupdate
  # shellcheck disable=SC2016 # expanded inside
  expect "a silent daemon is not reset during an installation" \
    inside sh -c 'kill -STOP "$(pidof kova_ctlserver)" && /tmp/fwupdate; kill -CONT "$(pidof kova_ctlserver)"'
}

resets_a_frozen_feeder() {
  # shellcheck disable=SC2016 # expanded inside
  resets "feeder" sh -c 'kill -STOP "$(pidof watchdog)"'
}

# The kernel reboots at once (panic=-1), without the watchdog.
reboots_after_a_panic() {
  local boot
  boot=$(boot_count)
  inside sh -c 'echo c >/proc/sysrq-trigger' >/dev/null 2>&1 || true # the panic loses its exit status
  expect "a kernel panic reboots the camera" run_machine wait "$one" "$((boot + 1))"
}

[ $# -gt 0 ] || set -- starts_with_a_watchdog lets_a_healthy_camera_be waits_for_an_installation \
  resets_a_frozen_daemon resets_a_frozen_feeder reboots_after_a_panic
run_parts "$@"
