#!/usr/bin/env bash
# scripts_test.sh: runs the maintainer scripts of kova-ctlserver as dpkg(1) does, with supervisors that only tell what was
# asked of them, and looks at what runs then. It rewrites /etc and /run: only through tests/private-root.
set -euo pipefail

if [ "$(hostname)" != kova-test ] || [ "$(stat -fc %T /etc)" != tmpfs ]; then
  echo "only through tests/private-root" >&2
  exit 125
fi

scripts=$(dirname "$(readlink -f "$0")")/../../debian
work=/tmp/scripts_test
readonly scripts bin=$work/bin state=$work/state
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

# fake NAME: its body comes from standard input.
fake() {
  { printf '#!/bin/sh\n' && cat; } >"$bin/$1"
  chmod 755 "$bin/$1"
}

# What a service does is the content of a file of its name: "run", "down", and of runit what sv(8) adds to it.
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

# begin MANAGER BUS DAEMON [ENABLED]: what runs; both are enabled unless the last is "no".
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

# script NAME ARGUMENT...: FAIL is what fails.
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

what_ran_runs_again() {
  begin "$1" run run
  expect "$1: it is stopped while a dependency is replaced" deconfigures
  expect "  with its bus" run down down
  expect "  and configured again" configures
  expect "  both run" run run run
  expect_not "  and no mark is left" test -e /run/kova_stopped
  begin "$1" run "$2"
  expect "$1: it is stopped while it is restarted" deconfigures
  expect "  and started again" configures
  expect "  both run" run run run
  begin "$1" run run
  deconfigures >/dev/null
  expect "$1: what is given up starts it again" script postinst abort-deconfigure in-favour libc6 2
  expect "  both run" run run run
}

what_was_stopped_stays_stopped() {
  begin "$1" run down
  expect "$1: a stopped daemon is upgraded" configures
  expect "  and not started" run run down
  expect "  also not when a dependency is replaced" deconfigures
  expect "  and it is configured again" configures
  expect "  but its bus is" run run down
}

failures_do_not_stop_it() {
  begin "$1" run run
  deconfigures >/dev/null
  printf '#!/bin/sh\nexit 1\n' >/usr/libexec/kova_members
  expect "$1: without room for the members it is configured" says "is /etc full?" configures
  expect "  and runs" run run run
}

make_machine
what_ran_runs_again runit "down, want up"
what_ran_runs_again systemd restart
what_was_stopped_stays_stopped runit
what_was_stopped_stays_stopped systemd
begin runit run "run, want down"
deconfigures >/dev/null
expect "what is being stopped is stopped" configures
expect "  and not started" run run down
failures_do_not_stop_it runit
failures_do_not_stop_it systemd
export FAIL=daemon-reload
begin systemd run run
deconfigures >/dev/null
expect "without a reload it is configured" says "systemctl daemon-reload" configures
expect "  and runs" run run run
expect "  and removed" script postrm remove
FAIL=groupdel
begin systemd down down
expect "a group that cannot be removed stays" says "it cannot be removed" script postrm purge
unset FAIL

for manager in runit systemd; do
  begin "$manager" down down no
  expect "$manager: installed, it says that it is not enabled" says "not enabled" script postinst configure ""
  expect "  also after it was removed" says "not enabled" configures
  begin "$manager" run run
  expect_not "  but not when it is" says "not enabled" configures
done
begin systemd run run
expect "removed" script prerm remove
expect "  it does not run" run down down
expect "  for good" script postrm remove
expect_not "  without a mark" test -e /run/kova_stopped
report
