#!/usr/bin/env bash
# camera_test.sh namespaces|user|chroot: tests virtual cameras in one mode of the private root. Exit status 77: the
# mode is unavailable on this machine. KOVA_BUILD is the folder of the programs.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
camera=$here/../camera
# shellcheck source=camera/tests/harness.sh
. "$here/harness.sh"

boots() {
  expect "start returns once kova_ctlserver owns its name" cam start "$one"
  expect "the daemon answers at once" inside busctl --address=unix:path=/run/kova/bus \
    call kova.kova_ctlserver / org.freedesktop.DBus.Peer Ping
  expect_not "starting a running camera is refused" cam start "$one"
  expect "the bus socket is visible from the host" test -S "$one/root/run/kova/bus"
  if [ -z "$caller" ]; then
    expect "a process of the host can use the bus" busctl --address="unix:path=$one/root/run/kova/bus" \
      call kova.kova_ctlserver / org.freedesktop.DBus.Peer Ping
  fi
}

has_factory_settings() {
  local hash
  hash=$(cut -d : -f 2 "$one/root/etc/passwd")
  expect "passwd has one line, for the administrator" \
    grep -qx "admin:[^:]*:0:0:Administrator:/etc/persistent:/bin/sh" "$one/root/etc/passwd"
  expect "passwd and system.cfg hold the same hash" grep -qxF "users.1.password=$hash" "$one/root/etc/system.cfg"
  expect "the camera has the name of its model" \
    grep -qx "resolv.host.1.name=Kova Virtual Camera" "$one/root/etc/system.cfg"
  expect_not "no shadow file exists" test -e "$one/root/etc/shadow"
  expect "the button is released" grep -qx 1 "$one/root/run/gpio/reset_button/value"
}

# has_capability BIT: whether root in the camera has this capability, see capabilities(7).
has_capability() {
  local mask
  mask=$(inside sed -n 's/^CapEff:[[:space:]]*//p' /proc/self/status)
  [ $((0x$mask >> $1 & 1)) -eq 1 ]
}
is_mounted_read_only() { inside grep -qE "^[^ ]+ $1 [^ ]+ ro[, ]" /proc/mounts; }

# Inspects the mounts instead of writing to them: if this test fails, the host must not change.
leaves_the_host_alone() {
  if [ "$way" = chroot ]; then
    expect "programs inside are not hard links" test "$(stat -c %h "$one/root/usr/bin/busctl")" -eq 1
    expect_not "they are copies of the host's" test "$one/root/usr/bin/busctl" -ef "$(command -v busctl)"
    return
  fi
  expect "the host's programs are read-only" is_mounted_read_only /usr/bin/busctl
  [ "$way" = namespaces ] || return 0
  expect "the host's kernel settings are read-only" is_mounted_read_only /proc/sys
  expect "root inside has CAP_CHOWN" has_capability 0
  expect_not "root inside lacks CAP_NET_ADMIN" has_capability 12
  expect_not "root inside lacks CAP_SYS_TIME" has_capability 25
}

runs_commands() {
  expect "exec returns the exit status of the command" exit_status 7 inside sh -c 'exit 7'
  expect "exec forwards standard input" inside grep -qx text < <(echo text)
  expect "exec runs inside the camera" inside grep -q '^admin:' /etc/passwd
  expect "exec of a missing program fails" exit_status 127 inside /bin/no-such-program
}

keeps_what_is_saved() {
  inside touch /etc/unsaved /tmp/unsaved "/tmp/unsaved.$$"
  expect_not "temporary files are not shared with the host" test -e "/tmp/unsaved.$$"
  expect "the camera reboots" reboot_and_wait
  expect_not "unsaved configuration is lost" test -e "$one/root/etc/unsaved"
  expect_not "temporary files are lost" test -e "$one/root/tmp/unsaved"
  inside sh -c 'echo text >/etc/persistent/saved && chmod 600 /etc/persistent/saved && /bin/cfgmtd -w -p /etc/ -m'
  reboot_and_wait
  expect "saved configuration is restored" grep -qx text "$one/root/etc/persistent/saved"
  expect "its mode is restored" test "$(stat -c %a "$one/root/etc/persistent/saved")" = 600
  expect "the run of cfgmtd is logged" grep -qxF "/bin/cfgmtd -w -p /etc/ -m" "$one/root/var/log/tools.log"
  expect "the run of reboot is logged" grep -qxF "/usr/bin/reboot" "$one/root/var/log/tools.log"
  cam stop "$one" >/dev/null
  cam start "$one" >/dev/null
  expect "saved configuration survives stop and start" grep -qx text "$one/root/etc/persistent/saved"
}

resets_to_the_factory() {
  inside cfgmtd -c
  reboot_and_wait
  expect_not "an erased configuration is gone after the reboot" test -e "$one/root/etc/persistent/saved"
  expect "the factory default is restored" cmp "$one/root/etc/passwd" "$one/root/usr/share/factory/etc/passwd"
}

# Root inside plants links in flash that lead out of the camera, and a boot count with a command substitution.
boots_from_hostile_flash() {
  mkdir "$work/outside"
  echo text >"$work/outside/file"
  chmod -R a+rwX "$work/outside"
  cam stop "$one" >/dev/null
  as_caller sh -c "cd '$one/flash' && rm -rf boots etc etc.a etc.b firmware.bin &&
    ln -s '$work/outside/file' boots.new && echo 'x[\$(touch $work/outside/run)]' >boots &&
    ln -s '$work/outside' etc.a && ln -s etc.a etc && ln -s '$work/outside/file' firmware.bin"
  cam start "$one" >/dev/null
  expect "no file outside is written" test "$(cat "$work/outside"/*)" = text
  expect_not "no file outside is read" test -e "$one/root/etc/file"
  expect "it boots with factory settings" cmp "$one/root/etc/passwd" "$one/root/usr/share/factory/etc/passwd"
  inside cfgmtd -c
  as_caller rm -f "$one/flash/firmware.bin"
}

refuses_ambiguous_options() {
  expect_not "cfgmtd -c -p is refused" inside cfgmtd -c -p /etc/
  expect_not "cfgmtd -w -c is refused" inside cfgmtd -w -c -p /etc/ -m
  expect_not "cfgmtd without options is refused" inside cfgmtd
  expect "nothing is stored" test ! -e "$one/flash/etc"
}

injects_failures() {
  local orders=$one/root/run/tools/cfgmtd
  as_caller mkdir "$orders"
  as_caller sh -c "echo 3 >'$orders/exit'; echo 1 >'$orders/times'; echo complaint >'$orders/stderr'"
  expect "exit: a tool exits with this status" exit_status 3 inside cfgmtd -w -p /etc/ -m
  expect "exit: it does nothing else" test ! -e "$one/flash/etc"
  expect "times: later runs are not affected" inside cfgmtd -w -p /etc/ -m
  as_caller sh -c "rm '$orders'/*; echo KILL >'$orders/kill'"
  expect "kill: a tool dies by this signal" exit_status 137 inside sh -c 'cfgmtd -c; exit $?'
  as_caller sh -c "rm '$orders'/*; echo 'and on' >'$orders/flood'"
  expect "flood: a tool prints endlessly" test "$(inside sh -c 'cfgmtd -c | head -n 1000 | sort -u')" = "and on"
  as_caller sh -c "rm '$orders'/*; echo 2 >'$orders/linger'"
  local begin=$SECONDS
  expect "linger: a tool works and leaves a child" test -z "$(inside sh -c 'cfgmtd -c | cat')"
  expect "linger: the child holds the output open" test "$((SECONDS - begin))" -ge 2
  as_caller rm -r "$orders"
  inside cfgmtd -c
}

check_firmware() { inside fwupdate.real -c >"$work/answer" 2>&1; }
put_firmware() {
  local image=$work/image
  shift 0
  "$here/../mkfirmware" "$image" "$@" && inside sh -c 'cat >/tmp/fwupdate.bin' <"$image"
}

updates_firmware() {
  put_firmware --board 42264 --version 9.9 --corrupt
  expect_not "a damaged image is refused" check_firmware
  expect "the reason is FW_CHECK_FAILED" grep -q '"reason":"FW_CHECK_FAILED"' "$work/answer"
  expect_not "it is not written" inside fwupdate -m
  put_firmware --board 0xa526 --version 9.9
  expect_not "an image for another model is refused" check_firmware
  expect "the reason is FW_CHECK_INCOMPAT_HW" grep -q '"reason":"FW_CHECK_INCOMPAT_HW"' "$work/answer"
  put_firmware --board 42264 --version 9.9
  expect "a good image is accepted" check_firmware
  expect "its version is printed" grep -qx '{"status":"ok","version":"9.9"}' "$work/answer"
  expect "it is written" inside fwupdate -m
  expect_not "it does not run yet" grep -qx 9.9 "$one/root/run/firmware_version"
  reboot_and_wait
  expect "it runs after the reboot" grep -qx 9.9 "$one/root/run/firmware_version"
}

keeps_a_boot_environment() {
  inside fw_setenv kova_audioplay 1
  inside fw_setenv other value
  inside fw_setenv kova_audioplay 0
  reboot_and_wait
  expect "the boot environment survives a reboot" test "$(inside fw_printenv -n kova_audioplay)" = 0
  expect "each variable has one value" test "$(inside fw_printenv | wc -l)" -eq 2
}

archives_for_support() {
  inside mkdir /tmp/support.own123
  if [ "$way" != user ]; then
    inside sh -c 'mkdir /tmp/support.foreig && chown 1:1 /tmp/support.foreig'
    inside /bin/support /tmp/supportinfo.tar
    expect "a folder of another user is not removed" inside rmdir /tmp/support.foreig
  fi
  inside /bin/support /tmp/supportinfo.tar
  expect "the archive is a tar" tar -xf "$one/root/tmp/supportinfo.tar" -C "$work"
  expect "it contains the log" grep -q kova_ctlserver "$work/support/messages"
  expect "it contains the configuration" grep -q '^users.1.name=' "$work/support/system.cfg"
  expect_not "it contains no password hash" grep -rqF "\$6\$" "$work/support"
  expect "no temporary files are left" test "$(find "$one/root/tmp" -mindepth 1 ! -name snap.jpeg | wc -l)" -eq 1
}

applies_its_name() {
  inside sed -i 's/^resolv.host.1.name=.*/resolv.host.1.name=Front door #1/' /etc/system.cfg
  inside kova_cmd_apply_camera_name.sh
  expect "the camera's name is converted to a host name" grep -qx Front-door-1 "$one/root/etc/hostname"
  if [ "$way" != chroot ]; then expect "the kernel has the host name" test "$(inside hostname)" = Front-door-1; fi
  inside sh -c 'kova_cmd_apply_camera_name.sh && sed -i "s/Front/Back/" /etc/system.cfg'
  expect "a name saved just afterwards is applied, too" eventually grep -qx Back-door-1 "$one/root/etc/hostname"
  expect "the name of the host is unchanged" test "$(uname -n)" = "$host_name"
}

supervises_services() {
  local before
  eventually inside pidof kova_discovery_server
  before=$(inside pidof kova_discovery_server)
  inside kill -TERM "$before"
  discovery_is_back() { [ "$(inside pidof kova_discovery_server)" != "$before" ] && inside pidof kova_discovery_server; }
  expect "a terminated service is restarted" eventually discovery_is_back
  expect "its exit is logged" eventually grep -q "kova_discovery_server: service ended" "$one/root/var/log/messages"
  inside killall -KILL dbus-daemon
  expect "the daemon serves again after the bus dies" eventually cam wait "$one"
}

daemon_pid() { inside grep . /run/sv/kova_ctlserver/pid; }
is_back() {
  local pid
  pid=$(daemon_pid) && [ "$pid" != "$1" ] && cam wait "$one"
}

# end_daemon SIGNAL: stops the daemon and waits until it serves again.
end_daemon() {
  local before
  before=$(daemon_pid)
  inside kill "-$1" "$before"
  eventually is_back "$before"
}

removes_leftovers_of_earlier_runs() {
  local random=0123456789abcdef number
  inside touch "/etc/.kova-$random" "/etc/persistent/.kova-$random" "/tmp/.kova-$random" /etc/localtime.new.77 \
    /etc/.kova-other
  inside ln /etc/localtime /etc/localtime.old.77
  for number in {11..21}; do
    inside touch -d "2020-01-$number 00:00" "/var/log/kova_crash.90$number"
  done
  expect "a killed daemon is restarted" end_daemon KILL
  expect_not "its temporary files are removed" inside sh -c \
    "ls -d /etc/.kova-$random /etc/persistent/.kova-$random /tmp/.kova-$random /etc/localtime.*"
  expect "other files are kept" inside test -e /etc/.kova-other -a -L /etc/localtime
  inside rm /etc/.kova-other
  expect "eight crash reports are kept" test "$(inside ls /var/log | grep -c kova_crash)" -eq 8
  expect "they are the newest" inside test -e /var/log/kova_crash.9014 -a -e /var/log/kova_crash.9021
  local crashed
  crashed=$(daemon_pid)
  expect "a crashed daemon is restarted" end_daemon SEGV
  expect "its crash report is kept" inside grep -q "Crashed by signal 11" "/var/log/kova_crash.$crashed"
  expect "the oldest report is dropped" test "$(inside ls /var/log | grep -c kova_crash)" -eq 8
  inside sh -c 'rm /var/log/kova_crash.*'
}

# try_login PASSWORD: whether BusyBox's login accepts the administrator. login requires a terminal and discards input
# typed before its prompt.
try_login() {
  local typed=$work/typed shown=$work/shown dialogue
  rm -f "$typed" "$shown"
  mkfifo "$typed"
  timeout 20 script -qec "'$camera' exec '$one' -- login admin" /dev/null <"$typed" >"$shown" &
  dialogue=$!
  exec 5>"$typed"
  eventually grep -q Password: "$shown"
  echo "$1" >&5
  eventually grep -qE 'incorrect|# ' "$shown"
  echo "echo in-as-\$(id -u); exit" >&5
  exec 5>&-
  if grep -q incorrect "$shown"; then kill "$dialogue" 2>/dev/null || true; fi
  wait "$dialogue" || true
  grep -q in-as-0 "$shown"
}

authenticates_the_administrator() {
  expect "login accepts the password" try_login admin
  expect_not "login rejects another password" try_login wrong
}

# The bus looks up groups by user name, so the two other users need temporary accounts.
restricts_bus_access() {
  local call=(busctl --address=unix:path=/run/kova/bus call kova.kova_ctlserver /
    org.freedesktop.DBus.Peer Ping)
  cp "$one/root/etc/passwd" "$work/passwd"
  printf 'operator:*:1000:990::/:/bin/sh\nguest:*:1001:1001::/:/bin/sh\n' >>"$one/root/etc/passwd"
  expect "root may call the daemon" inside "${call[@]}"
  expect "members of the group kova may call it" inside setpriv --reuid 1000 --regid 990 --clear-groups "${call[@]}"
  expect_not "other users may not call it" inside setpriv --reuid 1001 --regid 1001 --clear-groups "${call[@]}"
  expect "other users cannot open the bus socket" grep -q "Permission denied" "$work/output"
  cat "$work/passwd" >"$one/root/etc/passwd"
}

runs_beside_another_camera() {
  local two=$work/two.d/"R&D's [2]" info=$work/info.json
  as_caller mkdir "$work/two.d"
  sed -e 's/Kova Virtual Camera/Other/' -e 's/42264/42321/' "$here/../rootfs/usr/share/kova/camera_info.json" >"$info"
  chmod a+r "$info"
  expect "a second camera boots beside the first" cam start "$two" --info "$info"
  expect "it has the model given by --info" grep -qx "resolv.host.1.name=Other" "$two/root/etc/system.cfg"
  cam exec "$two" -- touch /etc/second
  expect_not "each camera has its own files" test -e "$one/root/etc/second"
  sees_one_daemon() { [ "$(cam exec "$two" -- pidof kova_ctlserver | wc -w)" -eq 1 ]; }
  expect "each camera sees only its own processes" eventually sees_one_daemon
  expect "the second camera stops" cam stop "$two"
  expect "nothing is created beside it" test "$(ls "$work/two.d")" = "${two##*/}"
  expect "the first camera still serves" cam wait "$one"
}

process_is_gone() { [ ! -e "/proc/$1" ] || grep -q '^State:.*[ZX]' "/proc/$1/status"; }

dies_with_its_supervisor() {
  local init
  init=$(cat "$one/state/init.pid")
  as_caller kill -KILL "$(cat "$one/state/supervisor.pid")"
  expect "the camera does not outlive its supervisor" eventually process_is_gone "$init"
  expect "exec reports that the camera is off" eventually exit_status 125 inside true
  expect "the camera can be started again" eventually cam start "$one"
}

stops() {
  local init
  init=$(cat "$one/state/init.pid")
  expect "the camera stops" cam stop "$one"
  expect "its first process is gone" process_is_gone "$init"
  expect "stopping twice succeeds" cam stop "$one"
  expect "the log shows an orderly shutdown" grep -q "SIGTERM received" "$one/root/var/log/messages"
}

refuses_invalid_input() {
  local long
  long=$work/$(printf 'x%.0s' {1..100})
  expect_not "a folder too long for the socket path is refused" cam start "$long"
  expect "the message names the limit" grep -q "at most 107" "$work/output"
  expect_not "an unknown mode is refused" \
    env PATH="$work/empty:$PATH" KOVA_CAMERA_MODE=nonsense "$camera" start "$work/x"
  mkdir "$work/lacking"
  printf '#!/bin/sh\necho "no namespaces" >&2\nexit 1\n' >"$work/lacking/bwrap"
  chmod 755 "$work/lacking" "$work/lacking/bwrap"
  expect_not "mode bwrap fails without namespaces" \
    as_caller env PATH="$work/lacking:$PATH" KOVA_CAMERA_MODE=bwrap "$camera" start "$work/y"
  expect "the message names what is missing" grep -q "bubblewrap: no namespaces" "$work/output"
  refuses_foreign_folders
  accepts_or_refuses_arguments
}

refuses_foreign_folders() {
  local foreign
  for foreign in "$work/foreign/root" "$work/papers/state" "$work/papers/letter"; do
    as_caller mkdir -p "$foreign"
    foreign=${foreign%/*}
    find "$foreign" | sort >"$work/held"
    expect_not "a folder with other files is refused: ${foreign##*/}" cam start "$foreign"
    expect "the message gives the reason" grep -q "contains other files" "$work/output"
    expect "the folder is unchanged" cmp "$work/held" <(find "$foreign" | sort)
  done
  echo text >"$work/file"
  expect_not "a file instead of a folder is refused" cam start "$work/file"
}

# Runs in an empty folder, to detect a camera that starts nevertheless.
accepts_or_refuses_arguments() {
  as_caller mkdir "$work/typed.d"
  cd "$work/typed.d"
  local command
  for command in start exec wait status stop firmware; do
    expect "$command --help succeeds" cam "$command" --help
    expect "$command --help prints the usage" grep -q "^usage: " "$work/output"
    expect_not "$command with an unknown option is refused" cam "$command" --nonsense
    expect "$command names the unknown option" grep -q -e --nonsense "$work/output"
  done
  expect "start DIR --help succeeds, too" cam start "$work/typed.d/x" --help
  for command in "start x --info" "start x y" "exec x --nonsense" "wait x 1 2" "wait x soon" "status x y" "stop x y" bogus; do
    # shellcheck disable=SC2086 # words
    expect_not "refused: $command" cam $command
  done
  expect "no file is created" test "$(find . | wc -l)" -eq 1
  cd "$here"
}

ends_when_its_folder_is_deleted() {
  local gone=$work/gone init supervisor
  cam start "$gone" >/dev/null
  init=$(cat "$gone/state/init.pid")
  supervisor=$(cat "$gone/state/supervisor.pid")
  expect "the camera's folder can be deleted" eventually as_caller rm -rf "$gone"
  expect "its first process exits" eventually process_is_gone "$init"
  expect "its supervisor exits" eventually process_is_gone "$supervisor"
  expect_not "the supervisor does not recreate the folder" test -e "$gone"
}

main() {
  isolate_host "$0" "$@"
  copy_etc
  trap clean_up EXIT
  chmod 755 "$work"
  choose_way "$1"
  host_name=$(uname -n)
  host_state >"$work/before"
  refuses_invalid_input
  boots
  has_factory_settings
  leaves_the_host_alone
  runs_commands
  supervises_services
  removes_leftovers_of_earlier_runs
  keeps_what_is_saved
  resets_to_the_factory
  boots_from_hostile_flash
  refuses_ambiguous_options
  injects_failures
  updates_firmware
  keeps_a_boot_environment
  archives_for_support
  applies_its_name
  runs_beside_another_camera
  if [ "$way" != user ]; then
    authenticates_the_administrator
    restricts_bus_access
  fi
  dies_with_its_supervisor
  ends_when_its_folder_is_deleted
  stops
  if [ -n "${KOVA_PRIVATE_HOST:-}" ]; then
    host_state >"$work/after"
    expect "the host is unchanged" diff "$work/before" "$work/after"
  else
    echo "left out: whether the host is unchanged (cannot make a private copy of /etc here)"
  fi
  echo "$failures failed"
  [ "$failures" -eq 0 ]
}

main "$@"
