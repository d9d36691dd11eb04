#!/usr/bin/env bash
# installed_test.sh: installs the packages below /packages into the Debian that it runs in, starts, asks, stops and
# removes them again. Only for the private root that package_test.sh makes.
set -euo pipefail

if [ ! -d /packages-test ]; then echo "only by way of package_test.sh" >&2 && exit 2; fi

readonly work=/run/test url=http://127.0.0.1:8080/logo.png
readonly services=(kova_bus kova_ctlserver)
failures=0
mkdir -p "$work"

# expect TEXT CMD...: the command succeeds; otherwise its output is shown. expect_not: it fails.
expect() {
  local text=$1
  shift
  if "$@" >"$work/output" 2>&1; then printf 'ok    %s\n' "$text"; else fail "$text"; fi
}
expect_not() {
  local text=$1
  shift
  if "$@" >"$work/output" 2>&1; then fail "$text"; else printf 'ok    %s\n' "$text"; fi
}
fail() {
  printf 'FAIL  %s\n' "$1"
  tail -n 10 "$work/output" | sed 's/^/      | /'
  failures=$((failures + 1))
}

# eventually CMD...: polls until the command succeeds, at most 15 s.
eventually() {
  local deadline=$((SECONDS + 15))
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

apt() { apt-get -qq -o Dpkg::Use-Pty=0 --no-install-recommends "$@"; }

# running NAME: prints the processes of that program.
running() { busybox pidof "$1"; }

# listing: prints every file of the system, those of /etc with their content. What apt, dpkg and ldconfig remember of
# any package that has ever been there is theirs; so are the copies that passwd's tools make before they change a file.
listing() {
  find / -xdev \( -path /proc -o -path /dev -o -path /sys -o -path /packages -o -path /packages-test -o -path /samples \
    -o -path "$work" -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache/apt -o -path /var/log/apt \
    -o -path /var/log/dpkg.log -o -path /var/log/alternatives.log -o -path /var/cache/ldconfig \) -prune -o -printf '%y %m %u:%g %p %l\n' | sort
  find /etc -type f ! -name '*-' ! -name ld.so.cache ! -name system.cfg -exec sha256sum {} + | sort -k 2
}

installs() {
  apt install /packages/kova-ctlserver_*.deb /packages/kovactl_*.deb >"$work/install.log" 2>&1 ||
    { cat "$work/install.log" && exit 1; }
  expect "it says that it is not enabled" grep -q "^kova_ctlserver is installed, but not enabled" "$work/install.log"
  expect_not "no bus runs" running dbus-daemon
  expect_not "no daemon runs" running kova_ctlserver
  expect_not "nor will one after a reboot" ls /etc/service/kova_bus /etc/systemd/system/multi-user.target.wants/kova_ctlserver.service
  expect "there is a group for its clients" getent group kova
  expect_not "OpenCV did not come along" sh -c "dpkg-query -W 'libopencv*' | grep -q ."
  local file
  for file in /usr/share/man/man8/kova_ctlserver.8.gz /usr/share/man/man1/kovactl.1.gz \
    /usr/share/bash-completion/completions/kovactl /usr/share/zsh/vendor-completions/_kovactl \
    /usr/share/dbus-1/interfaces/kova.Ipc1.xml /usr/share/doc/{kova-ctlserver,kovactl}/{copyright,changelog.gz}; do
    # minbase leaves nothing out, so each has to be there
    expect "there is $file" test -s "$file"
  done
}

# The firmware's part: system log, service supervision, and a web server in the network.
start_board() {
  busybox syslogd -n -O "$work/messages" &
  mkdir -p /run/runit/supervise
  runsvdir -P /etc/service >"$work/runsvdir" 2>&1 &
  supervisor=$!
  busybox httpd -f -p 127.0.0.1:8080 -h /samples &
}

enable() {
  local name
  for name in "${services[@]}"; do ln -s "/etc/sv/$name" /etc/service/; done
}

starts() {
  start_board
  enable
  expect "enabled, it serves" eventually kovactl stats
  expect "statistics have figures" sh -c "kovactl --json stats memory | grep -E '[1-9]'"
  expect "its start stands in the system log" grep -q "kova_ctlserver: service started" "$work/messages"
}

nobody_asks() { setpriv --reuid nobody --regid nogroup "$@" kovactl stats; }

obeys() {
  expect "a setting is changed" kovactl settings name=After
  expect "in the configuration" grep -qx "resolv.host.1.name=After" /etc/system.cfg
  expect "and made known" grep -q "^/bin/kova_cmd_apply_camera_name.sh" /run/tools
  expect "it is saved" kovactl save --sync
  expect "by the board's tool" grep -qx "/bin/cfgmtd -w -p /etc/ -m" /run/tools
  expect_not "a stranger is refused" nobody_asks --clear-groups
  usermod -aG kova nobody
  expect "a member of the group is not" nobody_asks --init-groups
  gpasswd -d nobody kova >/dev/null
}

put_logo() { kovactl put logo "$url" --file /samples/logo.png --timeout 10 --wait; }

takes_logos() {
  expect_not "without the picture decoder a logo is refused" put_logo
  expect "the picture decoder is installed" apt install /packages/kova-imageprobe_*.deb
  expect "with it the logo is taken" put_logo
  expect "it lies where it belongs" cmp /samples/logo.png /etc/persistent/user_logo
}

is_another() {
  local pid
  pid=$(running kova_ctlserver) && [ "$pid" != "$1" ] && kovactl stats >/dev/null
}

comes_back() {
  local before
  before=$(running kova_ctlserver)
  touch /etc/.kova-0123456789abcdef
  kill -SEGV "$before"
  expect "after a crash it is started again" eventually is_another "$before"
  expect "with a report of it" grep -q "Crashed by signal 11" "/var/log/kova_crash.$before"
  expect_not "and nothing unfinished" test -e /etc/.kova-0123456789abcdef
  before=$(running kova_ctlserver)
  expect "it is installed again" apt install --reinstall /packages/kova-ctlserver_*.deb
  expect "and restarted" eventually is_another "$before"
  expect "in order" grep -q "kova_ctlserver: service ended: exit status 0" "$work/messages"
}

# Stays what an administrator may have changed, until the packages are purged.
is_removed() {
  expect "removed" apt remove kova-ctlserver kovactl kova-imageprobe
  expect_not "no daemon runs any more" running kova_ctlserver
  expect_not "nor a bus" running dbus-daemon
  expect_not "nor a supervisor of them" pgrep_runsv
  expect_not "none is enabled" ls /etc/service/kova_bus /etc/service/kova_ctlserver
  expect "the logo is still there" test -s /etc/persistent/user_logo
}
pgrep_runsv() { busybox ps -o args | grep -E '^runsv kova'; }

is_purged() {
  expect "purged" apt purge kova-ctlserver kovactl kova-imageprobe
  expect_not "the group is gone" getent group kova
  apt autoremove --purge >/dev/null
  kill "$supervisor"
  wait "$supervisor" || true # however it ends
  rm -rf /run/runit /run/tools /run/syslogd.pid
  listing >"$work/after"
  expect "no file is left, and none changed" diff "$work/before" "$work/after"
}

show_log() {
  if [ "$failures" -gt 0 ]; then tail -n 30 "$work/messages" "$work/runsvdir"; fi
}

trap show_log EXIT
listing >"$work/before"
installs
starts
obeys
takes_logos
comes_back
is_removed
is_purged
echo "$failures failed"
[ "$failures" -eq 0 ]
