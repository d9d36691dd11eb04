# shellcheck shell=bash disable=SC2154 # work is the test's
# Shared by the tests in an installed Debian: installation of packages, and checks of the daemon.

apt() { apt-get -qq -o Dpkg::Use-Pty=0 --no-install-recommends "$@"; }

serve_samples() { busybox httpd -f -p 127.0.0.1:8080 -h /samples & }
put_logo() { kovactl put logo http://127.0.0.1:8080/logo.png --file /samples/logo.png --timeout 10 --wait; }

nobody_asks() { setpriv --reuid nobody --regid nogroup "$@" kovactl stats; }

tells_clients_apart() {
  expect "only root and the group can enter the bus's folder" test "$(stat -c '%a %U:%G' /run/kova)" = "750 root:kova"
  expect_not "a user outside the group is refused" nobody_asks --clear-groups
  usermod -aG kova nobody
  expect "a member of the group is accepted" nobody_asks --init-groups
  gpasswd -d nobody kova >/dev/null
}

obeys() {
  expect "the statistics contain figures" sh -c "kovactl --json stats memory | grep -E '[1-9]'"
  expect "settings can be changed" kovactl settings name=After timezone=Europe/Paris
  expect "the configuration has the name" grep -qx "resolv.host.1.name=After" /etc/system.cfg
  expect "the system has the time zone" test "$(readlink /etc/localtime)" = /usr/share/zoneinfo/Europe/Paris
  expect "the board's name tool was run" grep -q "^/bin/kova_cmd_apply_camera_name.sh" /var/lib/tools
  expect "the configuration can be saved" kovactl save --sync
  expect "the board's save tool was run" grep -qx "/bin/cfgmtd -w -p /etc/ -m" /var/lib/tools
}

# is_another PID: whether a daemon with another PID serves.
is_another() {
  local pid
  pid=$(daemon_pid) && [ "$pid" != "$1" ] && kovactl stats >/dev/null
}

comes_back_after_a_crash() {
  local before
  before=$(daemon_pid)
  touch /etc/.kova-0123456789abcdef
  kill -SEGV "$before"
  expect "after a crash the daemon is restarted" eventually is_another "$before"
  expect "the crash is reported" grep -q "Crashed by signal 11" "/var/log/kova_crash.$before"
  expect "the report can be copied" cp "/var/log/kova_crash.$before" "$work/kova_crash"
  expect_not "unfinished files are removed" test -e /etc/.kova-0123456789abcdef
}

is_restarted_when_installed_again() {
  local before
  before=$(daemon_pid)
  rm -f /run/kova_members.conf
  expect "the package can be reinstalled" apt install --reinstall /packages/kova-ctlserver_*.deb
  expect "the daemon is restarted" eventually is_another "$before"
  expect "the members of the group are recorded" test -e /run/kova_members.conf
}

# Runs the maintainer scripts as dpkg(1) does while it replaces a dependency.
comes_back_after_its_dependencies_changed() {
  local scripts=/var/lib/dpkg/info/kova-ctlserver
  expect "the package can be deconfigured for a dependency" "$scripts.prerm" deconfigure in-favour libc6 2
  expect_not "the daemon is stopped" kovactl stats
  expect "the package can be configured again" "$scripts.postinst" configure 0.1.0
  expect "the daemon serves again" eventually kovactl stats
}

# A daemon that is enabled, but stopped by an administrator, must stay stopped.
stays_stopped_when_installed_again() {
  expect "the daemon can be stopped by hand" daemon_service stop
  expect "the package can be reinstalled while it is stopped" apt install --reinstall /packages/kova-ctlserver_*.deb
  expect_not "the daemon stays stopped" kovactl stats
  expect "the daemon can be started by hand" daemon_service start
  expect "it serves after a start by hand" eventually kovactl stats
}
