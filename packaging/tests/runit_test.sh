#!/usr/bin/env bash
# runit_test.sh: installs the packages below /packages into the Debian that it runs in, starts them under runit, asks,
# stops and removes them again. Only for the private root that package_test.sh makes.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "only by way of package_test.sh" >&2 && exit 2; fi

work=/run/test
# shellcheck source=packaging/tests/expect.sh
. /packages-test/expect.sh
# shellcheck source=packaging/tests/installed.sh
. /packages-test/installed.sh

daemon_pid() { busybox pidof kova_ctlserver; }
daemon_service() { sv -w 30 "$1" /etc/sv/kova_ctlserver; }

# What apt, dpkg and ldconfig remember of any package that was ever there is theirs; so are the copies that the tools of
# passwd make before they change a file.
readonly FOREIGN=(/proc /dev /sys /packages /packages-test /samples "$work" /var/lib/tools /var/lib/dpkg /var/lib/apt
  /var/cache/apt /var/cache/ldconfig /var/log/apt /var/log/dpkg.log /var/log/alternatives.log)

# listing: prints every file of the system, those of /etc with their content.
listing() {
  local path skip=(-false)
  for path in "${FOREIGN[@]}"; do skip+=(-o -path "$path"); done
  find / -xdev \( "${skip[@]}" \) -prune -o -printf '%y %m %u:%g %p %l\n' | sort
  find /etc -type f ! -name '*-' ! -name ld.so.cache -exec sha256sum {} + | sort -k 2
}

installs() {
  expect "installed" apt install /packages/kova-ctlserver_*.deb /packages/kovactl_*.deb
  cp "$work/output" "$work/install.log"
  expect "it says that it is not enabled" grep -q "^kova_ctlserver is installed, but not enabled" "$work/install.log"
  expect "it asks for the libcurl that it needs" \
    sh -c "dpkg-query -W -f '\${Depends}' kova-ctlserver | grep -F 'libcurl4 (>= 7.87)'"
  expect_not "no bus runs" busybox pidof dbus-daemon
  expect_not "no daemon runs" daemon_pid
  expect_not "nor will one under runit" test -e /etc/service/kova_bus -o -e /etc/service/kova_ctlserver
  expect_not "nor under systemd" systemctl is-enabled kova-bus kova_ctlserver
  expect "there is a group for its clients" getent group kova
  expect_not "OpenCV did not come along" sh -c "dpkg-query -W 'libopencv*' | grep -q ."
  local file
  for file in man/man8/kova_ctlserver.8.gz man/man1/kovactl.1.gz bash-completion/completions/kovactl \
    zsh/vendor-completions/_kovactl fish/vendor_completions.d/kovactl.fish \
    dbus-1/interfaces/kova.{Ipc1,Transfer1,Device1}.xml doc/{kova-ctlserver,kovactl}/{copyright,changelog.gz}; do
    expect "there is $file" test -s "/usr/share/$file"
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
  expect "enabled, it serves" eventually kovactl stats
  expect "its start stands in the system log" grep -q "kova_ctlserver: service started" "$work/messages"
}

takes_logos() {
  expect_not "without the picture decoder a logo is refused" put_logo
  expect "the picture decoder is installed" apt install /packages/kova-imageprobe_*.deb
  expect "with it the logo is taken" put_logo
  expect "it lies where it belongs" cmp /samples/logo.png /etc/persistent/user_logo
}

supervisors() { busybox ps -o args | grep -E '^runsv kova'; }

# What an administrator may have changed stays until the packages are purged.
is_removed() {
  expect "removed" apt remove kova-ctlserver kovactl kova-imageprobe
  expect_not "no daemon runs any more" daemon_pid
  expect_not "nor a bus" busybox pidof dbus-daemon
  expect_not "nor a supervisor of them" supervisors
  expect_not "none is enabled" test -L /etc/service/kova_bus -o -L /etc/service/kova_ctlserver
  expect "the logo is still there" test -s /etc/persistent/user_logo
}

is_installed_after_it_was_removed() {
  expect "it is installed again" apt install /packages/kova-ctlserver_*.deb
  cp "$work/output" "$work/install.log"
  expect "it says that it is not enabled" grep -q "^kova_ctlserver is installed, but not enabled" "$work/install.log"
  expect_not "no daemon runs" daemon_pid
}

# The settings are the camera's, not the packages'.
restore_settings() {
  cp "$work/system.cfg" /etc/system.cfg
  cp -P "$work/localtime" /etc/localtime
  rm /etc/TZ
}

is_purged() {
  expect "purged" apt purge kova-ctlserver kovactl kova-imageprobe
  expect_not "the group is gone" getent group kova
  apt autoremove --purge >/dev/null
  restore_settings
  kill "$supervisor"
  wait "$supervisor" || true # however it ends
  rm -rf /run/runit /run/syslogd.pid
  listing >"$work/after"
  expect "no file is left, and none changed" diff "$work/before" "$work/after"
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
  expect "in order" grep -q "kova_ctlserver: service ended: exit status 0" "$work/messages"
  is_removed
  is_installed_after_it_was_removed
  is_purged
  report
}

main
