# shellcheck shell=bash disable=SC2154 # work is the test's
# What the tests in an installed Debian share: how packages come and go, and what the daemon is asked.

apt() { apt-get -qq -o Dpkg::Use-Pty=0 --no-install-recommends "$@"; }

serve_samples() { busybox httpd -f -p 127.0.0.1:8080 -h /samples & }
put_logo() { kovactl put logo http://127.0.0.1:8080/logo.png --file /samples/logo.png --timeout 10 --wait; }

nobody_asks() { setpriv --reuid nobody --regid nogroup "$@" kovactl stats; }

tells_clients_apart() {
  expect "the bus's folder is open to root and the group" test "$(stat -c '%a %U:%G' /run/kova)" = "750 root:kova"
  expect_not "a stranger is refused" nobody_asks --clear-groups
  usermod -aG kova nobody
  expect "a member of the group is not" nobody_asks --init-groups
  gpasswd -d nobody kova >/dev/null
}

obeys() {
  expect "statistics have figures" sh -c "kovactl --json stats memory | grep -E '[1-9]'"
  expect "a setting is changed" kovactl settings name=After timezone=Europe/Paris
  expect "in the configuration" grep -qx "resolv.host.1.name=After" /etc/system.cfg
  expect "in the system" test "$(readlink /etc/localtime)" = /usr/share/zoneinfo/Europe/Paris
  expect "and made known" grep -q "^/bin/kova_cmd_apply_camera_name.sh" /var/lib/tools
  expect "it is saved" kovactl save --sync
  expect "by the board's tool" grep -qx "/bin/cfgmtd -w -p /etc/ -m" /var/lib/tools
}

# is_another PID: whether another daemon than that serves.
is_another() {
  local pid
  pid=$(daemon_pid) && [ "$pid" != "$1" ] && kovactl stats >/dev/null
}

comes_back_after_a_crash() {
  local before
  before=$(daemon_pid)
  touch /etc/.kova-0123456789abcdef
  kill -SEGV "$before"
  expect "after a crash it is started again" eventually is_another "$before"
  expect "with a report of it" grep -q "Crashed by signal 11" "/var/log/kova_crash.$before"
  expect "which is kept for later" cp "/var/log/kova_crash.$before" "$work/kova_crash"
  expect_not "and nothing unfinished" test -e /etc/.kova-0123456789abcdef
}

is_restarted_when_installed_again() {
  local before
  before=$(daemon_pid)
  rm -f /run/kova_members.conf
  expect "it is installed again" apt install --reinstall /packages/kova-ctlserver_*.deb
  expect "and restarted" eventually is_another "$before"
  expect "the bus's members are remembered" test -e /run/kova_members.conf
}

# What dpkg(1) does while it replaces a package that this one depends on.
comes_back_after_its_dependencies_changed() {
  local scripts=/var/lib/dpkg/info/kova-ctlserver
  expect "it is stopped while a dependency is replaced" "$scripts.prerm" deconfigure in-favour libc6 2
  expect_not "and serves nobody" kovactl stats
  expect "it is configured again" "$scripts.postinst" configure 0.1.0
  expect "and serves" eventually kovactl stats
}

# What an administrator has stopped, although it is enabled.
stays_stopped_when_installed_again() {
  expect "it is stopped by hand" daemon_service stop
  expect "it is installed again" apt install --reinstall /packages/kova-ctlserver_*.deb
  expect_not "and not started" kovactl stats
  expect "it is started by hand" daemon_service start
  expect "and serves" eventually kovactl stats
}
