#!/usr/bin/env bash
# systemd_test.sh: installs the packages below /packages on a Debian booted by systemd, and tests their units:
# confinement, and that the daemon can do its job in spite of it. Only for the private root of package_test.sh.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "runs only through package_test.sh" >&2 && exit 2; fi

work=/run/test
# shellcheck source=packaging/tests/expect.sh
. /packages-test/expect.sh
# shellcheck source=packaging/tests/installed.sh
. /packages-test/installed.sh

readonly UNITS=(kova-bus.service kova_ctlserver.service)

watchdog_period() { systemctl show --value --property WatchdogUSec kova_ctlserver.service; }
main_pid() { systemctl show --value --property MainPID "$1"; }
daemon_pid() { main_pid kova_ctlserver.service; }
daemon_service() { systemctl "$1" kova_ctlserver.service; }

# has_status UNIT PATTERN: whether a line of /proc/PID/status of the unit's main process matches.
has_status() {
  grep -E "${2%%:*}" "/proc/$(main_pid "$1")/status"
  grep -qE "$2" "/proc/$(main_pid "$1")/status"
}

# lists NAME STATE: whether "service list" shows the service in this state.
lists() {
  kovactl service list >"$work/services"
  grep -xE "$1 +$2" "$work/services" || { cat "$work/services" && false; }
}

starts() {
  expect "the packages can be installed" apt install /packages/*.deb
  expect_not "the units are not enabled" systemctl is-enabled "${UNITS[@]}"
  expect_not "the units are not active" systemctl is-active "${UNITS[@]}"
  expect "the units can be enabled and started" systemctl enable --now "${UNITS[@]}"
  expect "the daemon serves" eventually kovactl stats
  expect_not "the bus logs no errors" journal_of kova-bus.service
}

# journal_of UNIT: prints the log of the unit's processes. Ignores the message about descriptors: the machine may allow
# fewer than the unit requests.
journal_of() {
  journalctl --no-pager --output cat --unit "$1" | grep -vE '^(Start|Stopp)(ing|ed) |Failed to set fd limit'
}

# capabilities BIT...: prints the mask of these capabilities(7), as far as this container has them.
capabilities() {
  local bit mask=0 possible
  for bit in "$@"; do mask=$((mask | 1 << bit)); done
  possible=$(sed -nE 's/^CapBnd:\s//p' /proc/1/status)
  printf '%016x' $((mask & 0x$possible))
}

is_confined() {
  expect "the bus has no capabilities" has_status kova-bus.service '^CapEff:\s0+$'
  expect "the daemon has NoNewPrivs" has_status kova_ctlserver.service '^NoNewPrivs:\s1$'
  expect "its system calls are filtered" has_status kova_ctlserver.service '^Seccomp:\s2$'
  expect "it has only the capabilities that it needs" \
    has_status kova_ctlserver.service "^CapEff:\s$(capabilities 0 1 3 5 6 7 19 21 22 24 34)$"
  expect "it may open 4096 files" grep -qE '^Max open files +4096 ' "/proc/$(daemon_pid)/limits"
  expect "its memory is limited" test "$(systemctl show --value --property MemoryMax kova_ctlserver.service)" = 671088640
  expect "the bus's memory is limited" grep -qE '^Max data size +536870912 ' "/proc/$(main_pid kova-bus.service)/limits"
  expect "the daemon's core files are disabled" grep -qE '^Max core file size +0 ' "/proc/$(daemon_pid)/limits"
}

hash_of() { getent shadow "$1" | cut -d : -f 2; }

locks_accounts() {
  useradd --password 'secret' admin
  expect "the account can be locked" kovactl user disable
  expect "it is locked in /etc/shadow" test "$(hash_of admin)" = '!secret'
  expect "the account can be unlocked" kovactl user enable
  expect "it is unlocked in /etc/shadow" test "$(hash_of admin)" = secret
  expect "/etc/shadow keeps its owner and mode" test "$(stat -c '%U:%G %a' /etc/shadow)" = "root:shadow 640"
  userdel admin
}

takes_logos() {
  serve_samples
  expect "a logo is accepted" put_logo
  expect "the logo is in /etc/persistent" cmp /samples/logo.png /etc/persistent/user_logo
}

# install_service NAME COMMAND LINE...: installs a unit, with further lines in its section [Service].
install_service() {
  local unit=/usr/lib/systemd/system/$1.service
  printf '[Service]\nExecStart=%s\n' "$2" >"$unit"
  shift 2
  printf '%s\n' "$@" '[Install]' 'WantedBy=multi-user.target' >>"$unit"
}

is_up() { systemctl is-active "$1" && systemctl is-enabled "$1"; }
is_down() { ! systemctl is-active "$1" && ! systemctl is-enabled "$1"; }
logged() { journalctl --unit kova_ctlserver.service --output cat | grep -F -- "$1" >/dev/null; }

serves_services() {
  install_service lights '/bin/sleep 600'
  systemctl daemon-reload
  expect "a service can be started" kovactl service start lights
  expect "it is active and enabled" is_up lights
  expect "it is listed as running" lists lights "run, started at boot"
  expect "starting it twice succeeds" kovactl service start lights
  expect "a service can be stopped" kovactl service stop lights
  expect "it is inactive and disabled" is_down lights
  expect "it is listed as down" lists lights down
  expect "stopping it twice succeeds" kovactl service stop lights
  expect "the daemon logs the stop" logged "kovactl tried to stop lights service and succeeded"
}

# refuses_services TEXT VERB NAME: expects that a request fails and that the daemon logs TEXT.
refuses_services() {
  expect_not "$2 $3 is refused" kovactl service "$2" "$3"
  expect "the log has: $1" eventually logged "$1"
}

refuses_what_cannot_be() {
  install_service fickle /bin/false
  install_service manual '/bin/sleep 600'
  install_service stubborn '/bin/sh -c "trap true TERM; while :; do sleep 1; done"'
  install_service shy '/bin/sleep 600' '[Unit]' 'RefuseManualStart=yes'
  ln -s dbus.service /usr/lib/systemd/system/plumbing.service
  systemctl daemon-reload
  systemctl mask manual
  refuses_services 'There is no service "nothing" of systemd' start nothing
  refuses_services 'There is no service "../lights" of systemd' stop ../lights
  refuses_services 'systemd LoadUnit of a b.service failed' start 'a b'
  refuses_services 'manual.service cannot be used: it is masked' start manual
  refuses_services 'fickle.service ended as soon as it was started' start fickle
  refuses_services 'systemd StartUnit of shy.service failed' start shy
  refuses_services 'Refused to stop kova_ctlserver.service' stop kova_ctlserver
  refuses_services 'Refused to stop dbus.service' stop plumbing
  ln -s debug-shell.service /usr/lib/systemd/system/backdoor.service
  systemctl daemon-reload
  refuses_services 'Refused to start systemd-poweroff.service' start systemd-poweroff
  refuses_services 'Refused to start debug-shell.service' start backdoor
  expect_not "debug-shell is not enabled" systemctl is-enabled debug-shell
  expect "a service that ignores SIGTERM can be started" kovactl service start stubborn
  refuses_services 'systemd StopUnit of stubborn.service failed: it takes too long' stop stubborn
  systemctl kill --signal KILL stubborn
}

survives_the_system_bus() {
  local before
  before=$(daemon_pid)
  kill -STOP "$(main_pid dbus.service)"
  expect_not "a start fails while the system bus hangs" kovactl service start lights
  kill -CONT "$(main_pid dbus.service)"
  expect "the daemon logs the failure" eventually logged 'Unable to reach systemd on the system bus'
  expect "a start succeeds once the system bus continues" eventually kovactl service start lights
  systemctl stop dbus.socket dbus.service
  expect_not "a stop fails without a system bus" kovactl service stop lights
  expect "the service is still active" systemctl is-active lights
  systemctl start dbus.socket dbus.service
  expect "a stop succeeds once the system bus is back" eventually kovactl service stop lights
  expect "the daemon has not been restarted" test "$(daemon_pid)" = "$before"
}

survives_its_bus() {
  local bus before
  bus=$(main_pid kova-bus.service)
  before=$(daemon_pid)
  kill -KILL "$bus"
  expect "after the death of the bus the daemon is restarted" eventually is_another "$before"
  expect_not "the bus is restarted" test "$(main_pid kova-bus.service)" = "$bus"
}

alive_at() { systemctl show --value --property WatchdogTimestampMonotonic kova_ctlserver.service; }
tells_later_than() { [ "$(alive_at)" -gt "$1" ]; }

# A frozen daemon does not feed the watchdog and is restarted. Shortens the watchdog's period for the test.
is_restarted_when_stopped() {
  local before told
  expect "the unit has a watchdog" test "$(watchdog_period)" = 1min
  mkdir -p /run/systemd/system/kova_ctlserver.service.d
  printf '[Service]\nWatchdogSec=2s\n' >/run/systemd/system/kova_ctlserver.service.d/watchdog.conf
  systemctl daemon-reload
  systemctl restart kova_ctlserver.service
  before=$(daemon_pid)
  expect "the shorter period is in effect" test "$(watchdog_period)" = 2s
  told=$(alive_at)
  expect "the daemon feeds the watchdog" eventually tells_later_than "$told"
  printf '#!/bin/sh\nsleep 6\n' >/bin/cfgmtd.slow && chmod 755 /bin/cfgmtd.slow
  mv /bin/cfgmtd /bin/cfgmtd.fast && mv /bin/cfgmtd.slow /bin/cfgmtd
  expect "a tool may run longer than the period" kovactl save --sync
  mv /bin/cfgmtd.fast /bin/cfgmtd
  install_service slow '/bin/sleep 600' 'ExecStartPre=/bin/sleep 5'
  systemctl daemon-reload
  expect "the start of a service may take longer than the period" kovactl service start slow
  expect "the daemon has not been restarted meanwhile" test "$(daemon_pid)" = "$before"
  kill -STOP "$before"
  expect "a frozen daemon is restarted" eventually is_another "$before"
  expect "systemd logs the reason" sh -c "journalctl --unit kova_ctlserver.service | grep -q 'Watchdog timeout'"
  expect "a crash report is written" grep -q "Crashed by signal 6" "/var/log/kova_crash.$before"
  rm -r /run/systemd/system/kova_ctlserver.service.d
  systemctl daemon-reload
  systemctl restart kova_ctlserver.service
  expect "the daemon serves with the original period" eventually kovactl stats
}

stops() {
  expect "the daemon can be stopped" systemctl stop kova_ctlserver.service
  expect "it exits cleanly" test "$(systemctl show --value --property Result kova_ctlserver.service)" = success
  expect "it logs SIGTERM" sh -c "journalctl --unit kova_ctlserver.service | grep -q 'SIGTERM received'"
  expect "the daemon can be started again" systemctl start kova_ctlserver.service
}

# Not pidof(1): the system bus is a dbus-daemon, too.
ours_run() { grep -lE 'sbin/kova_ctlserve[r]|share/kova/kova-bu[s]' /proc/[0-9]*/cmdline 2>/dev/null; }

is_purged() {
  expect "daemon and bus run" test "$(ours_run | wc -l)" = 2
  expect "the packages can be purged" apt purge kova-ctlserver kovactl kova-imageprobe
  expect_not "daemon and bus are stopped" ours_run
  expect_not "the daemon is disabled" test -L /etc/systemd/system/multi-user.target.wants/kova_ctlserver.service
  expect_not "systemd has unloaded the unit" systemctl cat kova_ctlserver.service
  expect_not "the socket's folder is removed" test -e /run/kova
}

show_log() {
  if [ "$failures" -gt 0 ]; then journalctl --no-pager --lines 60; fi
}

main() {
  trap show_log EXIT
  starts
  is_confined
  obeys
  tells_clients_apart
  locks_accounts
  takes_logos
  serves_services
  refuses_what_cannot_be
  survives_the_system_bus
  comes_back_after_a_crash
  survives_its_bus
  is_restarted_when_stopped
  is_restarted_when_installed_again
  stays_stopped_when_installed_again
  comes_back_after_its_dependencies_changed
  stops
  is_purged
  report
}

main
