#!/usr/bin/env bash
# scripts_test.sh: runs the maintainer scripts of kova-ctlserver as dpkg(1) does, with fake supervisors, and checks
# which services run then. It rewrites /etc and /run: run it only through tests/private-root.
set -euo pipefail

if [ "$(hostname)" != kova-test ] || [ "$(stat -fc %T /etc)" != tmpfs ]; then
  echo "runs only through tests/private-root" >&2
  exit 125
fi

scripts=$(dirname "$(readlink -f "$0")")/../../debian
work=/tmp/scripts_test
readonly scripts bin=$work/bin state=$work/state
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# fake NAME: installs a fake program; its body comes from standard input.
fake() {
  { printf '#!/bin/sh\n' && cat; } >"$bin/$1"
  chmod 755 "$bin/$1"
}

# The state of a service is in a file of its name: "run" or "down", and for runit the suffix that sv(8) prints.
make_machine() {
  mkdir -p "$bin" "$state" /etc/sv/kova_{bus,ctlserver}/supervise /etc/service
  mount -t tmpfs tmpfs /usr/libexec
  cat >"$bin/functions" <<TEXT
state_of() { cat "$state/\${1##*/}"; }
become() { echo "\$2" >"$state/\${1##*/}"; }
TEXT
  fake sv <<TEXT
. "$bin/functions"
case \$1 in
  status)
    case \$(state_of "\$2") in
      down*) echo "down: \$2: 3s, normally up\$(state_of "\$2" | sed 's/^down//')" ;;
      *) echo "run: \$2: (pid 7) 3s\$(state_of "\$2" | sed 's/^run//'); run: log: (pid 6) 3s" ;;
    esac
    ;;
  -w)
    case \$3 in
      start) become "\$4" run ;;
      force-stop | force-shutdown) become "\$4" down ;;
    esac
    ;;
esac
TEXT
  fake systemctl <<TEXT
. "$bin/functions"
[ "\$1" != --quiet ] || shift
command=\$1
shift
[ "\$command" != "\${FAIL:-}" ] || exit 1
case \$command in
  is-active) case \$(state_of "\$1") in run) echo active ;; restart) echo activating ;; *) echo inactive; exit 3 ;; esac ;;
  is-enabled) [ -e "$state/enabled" ] ;;
  start) become "\$1" run ;;
  stop) for unit in "\$@"; do become "\$unit" down; done ;;
esac
TEXT
  fake chgrp </dev/null
  # shellcheck disable=SC2016 # for the tool
  fake groupdel <<<'[ "${FAIL:-}" != groupdel ]'
  echo 'kova:x:990:' >>/etc/group
}

# begin MANAGER BUS DAEMON [ENABLED]: sets the states of both services, which are enabled unless ENABLED is "no".
begin() {
  rm -rf "$state" /run/systemd /run/kova_stopped /etc/sv/*/supervise/ok /etc/service/*
  mkdir -p "$state" /run/kova
  printf '#!/bin/sh\n' >/usr/libexec/kova_members
  chmod 755 /usr/libexec/kova_members
  case $1 in
    runit)
      bus=kova_bus daemon=kova_ctlserver
      mkfifo /etc/sv/kova_{bus,ctlserver}/supervise/ok
      [ "${4:-}" = no ] || ln -s /etc/sv/kova_bus /etc/sv/kova_ctlserver /etc/service/
      ;;
    systemd)
      bus=kova-bus.service daemon=kova_ctlserver.service
      mkdir -p /run/systemd/system
      [ "${4:-}" = no ] || touch "$state/enabled"
      ;;
  esac
  echo "$2" >"$state/$bus"
  echo "$3" >"$state/$daemon"
}

# script NAME ARGUMENT...: runs a maintainer script; the command named by FAIL fails.
script() {
  local status=0
  env PATH="$bin:$PATH" "$scripts/kova-ctlserver.$1" "${@:2}" >"$work/said" 2>&1 || status=$?
  cat "$work/said"
  return "$status"
}
says() { "${@:2}" && grep -F -- "$1" "$work/said"; }
run() { [ "$(cat "$state/$bus") $(cat "$state/$daemon")" = "$*" ]; }

deconfigures() { script prerm deconfigure in-favour libc6 2; }
configures() { script postinst configure 0.1.0; }

running_services_are_restarted() {
  begin "$1" run run
  expect "$1: prerm succeeds while a dependency is replaced" deconfigures
  expect "  daemon and bus are stopped" run down down
  expect "  postinst succeeds" configures
  expect "  daemon and bus run" run run run
  expect_not "  the record of stopped services is removed" test -e /run/kova_stopped
  begin "$1" run "$2"
  expect "$1: prerm succeeds while the daemon is restarting" deconfigures
  expect "  postinst succeeds" configures
  expect "  daemon and bus run" run run run
  begin "$1" run run
  deconfigures >/dev/null
  expect "$1: an aborted replacement succeeds" script postinst abort-deconfigure in-favour libc6 2
  expect "  daemon and bus run" run run run
}

stopped_daemon_stays_stopped() {
  begin "$1" run down
  expect "$1: postinst succeeds with a stopped daemon" configures
  expect "  the daemon is not started" run run down
  expect "  prerm succeeds while a dependency is replaced" deconfigures
  expect "  postinst succeeds" configures
  expect "  only the bus is started" run run down
}

failures_do_not_stop_it() {
  begin "$1" run run
  deconfigures >/dev/null
  printf '#!/bin/sh\nexit 1\n' >/usr/libexec/kova_members
  expect "$1: postinst succeeds if the members cannot be recorded" says "check for space in /etc" configures
  expect "  daemon and bus run" run run run
}

make_machine
running_services_are_restarted runit "down, want up"
running_services_are_restarted systemd restart
stopped_daemon_stays_stopped runit
stopped_daemon_stays_stopped systemd
begin runit run "run, want down"
deconfigures >/dev/null
expect "postinst succeeds with a daemon that was stopping" configures
expect "  the daemon is not started" run run down
failures_do_not_stop_it runit
failures_do_not_stop_it systemd
export FAIL=daemon-reload
begin systemd run run
deconfigures >/dev/null
expect "postinst succeeds if daemon-reload fails" says "systemctl daemon-reload" configures
expect "  daemon and bus run" run run run
expect "  postrm succeeds" script postrm remove
FAIL=groupdel
begin systemd down down
expect "postrm succeeds if the group cannot be removed" says "it cannot be removed" script postrm purge
unset FAIL

for manager in runit systemd; do
  begin "$manager" down down no
  expect "$manager: a new installation reports that it is not enabled" says "not enabled" script postinst configure ""
  expect "  so does an installation after a removal" says "not enabled" configures
  begin "$manager" run run
  expect_not "  an enabled daemon is not reported" says "not enabled" configures
done
begin systemd run run
expect "prerm remove succeeds" script prerm remove
expect "  daemon and bus are stopped" run down down
expect "  postrm remove succeeds" script postrm remove
expect_not "  the record of stopped services is removed" test -e /run/kova_stopped
report
