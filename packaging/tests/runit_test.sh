#!/usr/bin/env bash
# runit_test.sh: installs the packages below /packages, tests the services under runit, and removes the packages. Only
# for the private root of package_test.sh.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "runs only through package_test.sh" >&2 && exit 2; fi

work=/run/test
# shellcheck source=packaging/tests/expect.sh
. /packages-test/expect.sh
# shellcheck source=packaging/tests/installed.sh
. /packages-test/installed.sh

daemon_pid() { busybox pidof kova_ctlserver; }
daemon_service() { sv -w 30 "$1" /etc/sv/kova_ctlserver; }

# Records of apt, dpkg and ldconfig, which outlive a package. `listing` also skips the backup files of the passwd tools.
readonly FOREIGN=(/proc /dev /sys /packages /packages-test /samples "$work" /var/lib/tools /var/lib/dpkg /var/lib/apt
  /var/cache/apt /var/cache/ldconfig /var/log/apt /var/log/dpkg.log /var/log/alternatives.log)

# listing: prints all files of the system, and checksums of those in /etc.
listing() {
  local path skip=(-false)
  for path in "${FOREIGN[@]}"; do skip+=(-o -path "$path"); done
  find / -xdev \( "${skip[@]}" \) -prune -o -printf '%y %m %u:%g %p %l\n' | sort
  find /etc -type f ! -name '*-' ! -name ld.so.cache -exec sha256sum {} + | sort -k 2
}

installs() {
  expect "the packages can be installed" apt install /packages/kova-ctlserver_*.deb /packages/kovactl_*.deb
  cp "$work/output" "$work/install.log"
  expect "it reports that it is not enabled" grep -q "^kova_ctlserver is installed, but not enabled" "$work/install.log"
  expect "it depends on the right version of libcurl" \
    sh -c "dpkg-query -W -f '\${Depends}' kova-ctlserver | grep -F 'libcurl4 (>= 7.87)'"
  expect_not "no bus runs" busybox pidof dbus-daemon
  expect_not "no daemon runs" daemon_pid
  expect_not "nothing is enabled under runit" test -e /etc/service/kova_bus -o -e /etc/service/kova_ctlserver
  expect_not "nothing is enabled under systemd" systemctl is-enabled kova-bus kova_ctlserver
  expect "the group kova exists" getent group kova
  expect_not "OpenCV is not installed" sh -c "dpkg-query -W 'libopencv*' | grep -q ."
  local file
  for file in man/man8/kova_ctlserver.8.gz man/man1/kovactl.1.gz bash-completion/completions/kovactl \
    zsh/vendor-completions/_kovactl fish/vendor_completions.d/kovactl.fish \
    dbus-1/interfaces/kova.{Ipc1,Transfer1,Device1}.xml doc/{kova-ctlserver,kovactl}/{copyright,changelog.gz}; do
    expect "$file is installed" test -s "/usr/share/$file"
  done
}

# The firmware's part: system log and service supervision.
start_board() {
  busybox syslogd -n -O "$work/messages" &
  mkdir -p /run/runit/supervise
  runsvdir -P /etc/service >"$work/runsvdir" 2>&1 &
  supervisor=$!
  serve_samples
}

starts() {
  start_board
  ln -s /etc/sv/kova_bus /etc/sv/kova_ctlserver /etc/service/
  expect "once enabled, the daemon serves" eventually kovactl stats
  expect "its start is logged" grep -q "kova_ctlserver: service started" "$work/messages"
}

takes_logos() {
  expect_not "without the picture decoder a logo is refused" put_logo
  expect "the picture decoder can be installed" apt install /packages/kova-imageprobe_*.deb
  expect "with the decoder the logo is accepted" put_logo
  expect "the logo is in /etc/persistent" cmp /samples/logo.png /etc/persistent/user_logo
}

supervisors() { busybox ps -o args | grep -E '^runsv kova'; }

# Removal keeps files that an administrator may have changed; purge removes them.
is_removed() {
  expect "the packages can be removed" apt remove kova-ctlserver kovactl kova-imageprobe
  expect_not "the daemon is stopped" daemon_pid
  expect_not "the bus is stopped" busybox pidof dbus-daemon
  expect_not "their supervisors are stopped" supervisors
  expect_not "the services are disabled" test -L /etc/service/kova_bus -o -L /etc/service/kova_ctlserver
  expect "the logo is kept" test -s /etc/persistent/user_logo
}

is_installed_after_it_was_removed() {
  expect "the package can be installed again" apt install /packages/kova-ctlserver_*.deb
  cp "$work/output" "$work/install.log"
  expect "it reports again that it is not enabled" \
    grep -q "^kova_ctlserver is installed, but not enabled" "$work/install.log"
  expect_not "no daemon runs" daemon_pid
}

# The settings belong to the camera, so a purge does not reset them.
restore_settings() {
  cp "$work/system.cfg" /etc/system.cfg
  cp -P "$work/localtime" /etc/localtime
  rm /etc/TZ
}

is_purged() {
  expect "the packages can be purged" apt purge kova-ctlserver kovactl kova-imageprobe
  expect_not "the group is removed" getent group kova
  apt autoremove --purge >/dev/null
  restore_settings
  kill "$supervisor"
  wait "$supervisor" || true # whatever its exit status
  rm -rf /run/runit /run/syslogd.pid
  listing >"$work/after"
  expect "no file is left or changed" diff "$work/before" "$work/after"
}

show_log() {
  if [ "$failures" -gt 0 ]; then tail -n 30 "$work/messages" "$work/runsvdir"; fi
}

main() {
  trap show_log EXIT
  cp -P /etc/system.cfg /etc/localtime "$work"
  listing >"$work/before"
  installs
  starts
  obeys
  tells_clients_apart
  takes_logos
  comes_back_after_a_crash
  is_restarted_when_installed_again
  stays_stopped_when_installed_again
  comes_back_after_its_dependencies_changed
  expect "the daemon has exited with status 0" \
    grep -q "kova_ctlserver: service ended: exit status 0" "$work/messages"
  is_removed
  is_installed_after_it_was_removed
  is_purged
  report
}

main
