#!/usr/bin/env bash
# machine_test.sh: tests the camera on an emulated computer. Exit status 77: QEMU is not installed. KOVA_BUILD is the
# folder of the programs, built for 64-bit ARM.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=machine/tests/harness.sh
. "$here/harness.sh"
readonly SIGSYS_STATUS=$((128 + 31))
readonly DOWN="Reset button (case) down" UP="Reset button (case) up after" HELD="Reset button (case) can be released now"

host_packages() { dpkg --print-foreign-architectures && cat /proc/modules && ls /proc/sys/fs/binfmt_misc; }

refuses_what_it_cannot_do() {
  mkdir -p "$work/other"
  touch "$work/other/file"
  expect "a folder with other files is refused" exit_status 1 run_machine start "$work/other"
  expect "an unknown command is refused" exit_status 2 run_machine fly "$one"
  expect "a machine that is off runs no command" exit_status 125 run_machine exec "$one" -- true
  expect "its button cannot be pressed" exit_status 1 run_machine press "$one" 1
  expect "status reports that it is off" exit_status 1 run_machine status "$one"
}

boots() {
  local begin qemu
  host_packages >"$work/host.before" 2>/dev/null || true
  make_image
  begin=$(date +%s%N)
  expect "start returns once kova_ctlserver owns its name" start_machine
  figure "power-on until it answers on the bus" "$((($(date +%s%N) - begin) / 1000000)) ms"
  qemu=$(qemu_process)
  figure "processor time of QEMU until then" "$(ps -o time= -p "$qemu")"
  figure "resident memory of QEMU" "$(ps -o rss= -p "$qemu") KiB"
  expect "the daemon answers on the bus" inside busctl --address=unix:path=/run/kova/bus \
    call kova.kova_ctlserver / org.freedesktop.DBus.Peer Ping
  expect "starting a running machine is refused" exit_status 1 run_machine start "$one"
  expect "the kernel is built for 64-bit ARM" printed_inside "uname -m" aarch64
  expect_not "the firmware cannot be changed" inside touch /usr/bin/new /bin/new /sbin/new
  # shellcheck disable=SC2016 # expanded inside
  figure "resident memory of kova_ctlserver" \
    "$(inside sh -c 'sed -n "s/^VmRSS:[[:space:]]*//p" /proc/$(pidof kova_ctlserver)/status')"
}

passes_commands_on() {
  head -c 300000 /dev/urandom >"$work/blob"
  expect "exec returns the exit status of the command" exit_status 7 inside sh -c 'exit 7'
  expect "exec forwards binary input and output" run_machine exec "$one" -- cat <"$work/blob"
  expect "the data is unchanged" cmp "$work/blob" "$work/output"
  inside sh -c 'echo complaint >&2; echo text' >"$work/out" 2>"$work/err"
  expect "output and errors are separate" test "$(cat "$work/out") $(cat "$work/err")" = "text complaint"
  inside sh -c 'echo early >&2; sleep 0.5; echo late' >"$work/out" 2>&1
  expect "on one descriptor, their lines do not mix" test "$(cat "$work/out")" = $'early\nlate'
  # shellcheck disable=SC2016 # not expanded anywhere
  expect "arguments are passed unchanged" test "$(inside printf '%s|' 'a  b' "it's" '$HOME')" = "a  b|it's|\$HOME|"
  timeout 2 "$machine" exec "$one" -- sh -c 'while :; do echo noise; done' >/dev/null </dev/null || true
  expect "output of a killed client's command is dropped" test "$(inside echo quiet)" = quiet
  expect "the command is killed" printed_inside 'ps | grep -c "do [e]cho noise"' 0
}

runs_from() { readlink "/proc/$(qemu_process)/fd/"* | grep -q "^$1/system.ext4\$"; }

# Uses a copy of the image, which other tests share.
keeps_its_image() {
  local image=${KOVA_MACHINE_IMAGE:-$here/../../build/machine/image} boot
  cp -a --reflink=auto "$image" "$work/image"
  ln -s "$(realpath "$image.packages")" "$work/image.packages"
  expect "the machine stops" run_machine stop "$one"
  local -x KOVA_MACHINE_IMAGE=$work/image
  expect "it starts from another image" start_machine
  echo "something else" >"$work/image/inputs"
  expect "the image is replaced" make_image
  boot=$(boot_count)
  run_machine reset "$one"
  expect "after a reset it boots again" run_machine wait "$one" "$((boot + 1))"
  expect "it still uses the old image" runs_from "$work/image\.old\.[^/]*"
  expect "it stops again" run_machine stop "$one"
  expect "it starts again" start_machine
  expect "it uses the new image" runs_from "$work/image"
  expect_not "the old image is removed" compgen -G "$work/image.old.*"
}

tells_the_kernels_figures() {
  # shellcheck disable=SC2016 # expanded inside
  local facts='facts() {
    printf "model=%s\n" "$(tr -d "\\000" </proc/device-tree/model)"
    sed -n "s/^Features[[:space:]]*: /features=/p" /proc/cpuinfo
    sed -n "s/^MemTotal: *\([0-9]*\).*/total=\1/p; s/^MemFree: *\([0-9]*\).*/free=\1/p" /proc/meminfo
    printf "load=%s\n" "$(cut -d " " -f 1 /proc/loadavg)"
    printf "uptime=%s\n" "$(cut -d " " -f 1 /proc/uptime)"
    printf "processors=%s\n" "$(grep -c ^processor /proc/cpuinfo)"
    awk "\$1 == \"eth0:\" { print \"received=\" \$2 }" /proc/net/dev
  }
  facts; kovactl --json stats; facts'
  inside sh -c "$facts" >"$work/stats"
  expect "the statistics match the kernel's" "$here/compare_stats" "$work/stats"
}

act() { inside /tmp/kova_confined "$1" /tmp/picture; }
confines_the_picture_decoder() {
  local name
  put_inside "$(find "$KOVA_BUILD" -name kova_confined -type f -perm -u+x -print -quit)" /tmp/kova_confined
  inside sh -c 'printf content >/tmp/picture; chmod 666 /tmp/picture'
  expect "a confined decoder reads its picture" act read
  for name in write create truncate rename chmod execute kill trace mount unshare; do
    expect "the kernel kills a decoder on: $name" exit_status "$SIGSYS_STATUS" act "$name"
  done
  for name in unlink mkdir socket fork thread memory; do
    expect "the kernel denies a decoder: $name" exit_status 1 act "$name"
  done
  expect "the picture is unchanged" printed_inside "cat /tmp/picture" content
}

takes_a_logo() {
  mkdir "$work/served"
  cp "$here/../../camera/samples/logo.png" "$work/served/"
  echo "not a picture" >"$work/served/logo.txt"
  start_server
  put_inside "$work/served/logo.png" /tmp/logo.local
  expect "a logo is accepted" put_logo "$url/logo.png"
  expect "it is installed" inside cat /etc/persistent/user_logo
  expect "its content is unchanged" cmp "$work/served/logo.png" "$work/output"
  put_inside "$work/served/logo.txt" /tmp/logo.local
  expect_not "a file that is not a picture is refused" put_logo "$url/logo.txt"
  expect "the reason is VALIDATION_FAILED" grep -q VALIDATION_FAILED "$work/output"
  stop_server
}

survives_power_cuts() {
  inside kovactl settings name=Porch >/dev/null
  inside kovactl save --sync >/dev/null
  inside kovactl settings name=Unsaved >/dev/null
  expect "the power can be cut" run_machine cut "$one"
  expect "the machine starts again" start_machine
  expect "the saved name is restored" inside grep -qx "resolv.host.1.name=Porch" /etc/system.cfg
  inside cat /etc/persistent/user_logo >"$work/installed"
  expect "the logo is restored" cmp "$work/served/logo.png" "$work/installed"
  local boot
  boot=$(boot_count)
  expect "the board can be reset" run_machine reset "$one"
  expect "it boots after the reset" run_machine wait "$one" "$((boot + 1))"
}

# The daemon's messages about its button after line `mark` of the camera's log.
mark_log() { mark=$(inside sh -c 'wc -l </var/log/messages'); }
told() { inside tail -n "+$((mark + 1))" /var/log/messages | grep -F "Reset button (case)"; }
told_of() { told | grep -cF "$1"; } # fails if there is none
counts() { echo "$(told_of "$DOWN") $(told_of "$UP") $(told_of "$HELD")"; }
told_times() { [ "$(told_of "$2")" -ge "$1" ]; }
is_told() { eventually told_times "$@"; }

# once_quick GESTURE DOWNS UPS: repeats the gesture, up to five times, until the daemon logs exactly these movements and
# no hold. On a busy computer, a stall of the machine for 250 ms splits one press into two.
once_quick() {
  local attempt
  for attempt in {1..5}; do
    mark_log
    if "$1" && [ "$(counts)" = "$2 $3 0" ]; then return; fi
    run_machine release "$one"
    echo "attempt $attempt: $(told)"
  done
  return 1
}

press_shortly() { run_machine press "$one" 0.5 && is_told 1 "$UP"; }

# The log of the final press shows that the daemon has processed the bounces.
bounce_then_press() {
  "$here/../lib/board" "$one/state" bounce || return
  press_shortly
}

# Two presses with a save in between, during which the daemon does not poll the button: must not count as a long press.
tap_around_a_save() {
  local saving
  inside sh -c 'mkdir -p /run/tools/cfgmtd && echo 6.5 >/run/tools/cfgmtd/sleep && echo 1 >/run/tools/cfgmtd/times'
  run_machine press "$one"
  is_told 1 "$DOWN" || return
  inside kovactl save --sync >/dev/null &
  saving=$!
  eventually inside grep -qx 0 /run/tools/cfgmtd/times
  run_machine release "$one"
  run_machine press "$one"
  wait "$saving"
  is_told 2 "$DOWN"
  run_machine release "$one"
  is_told 2 "$UP"
}

# Presses the button until the daemon logs a long press.
hold() {
  mark_log
  run_machine press "$one"
  is_told 1 "$HELD"
}

# Prints the runs of the device tools in this boot.
runs_of_tools() { inside sh -c '[ ! -e /var/log/tools.log ] || cat /var/log/tools.log'; }

obeys_its_button() {
  local boot tools
  boot=$(boot_count)
  tools=$(runs_of_tools)
  expect "a short press is one press" once_quick press_shortly 1 1
  # shellcheck disable=SC2016 # expanded inside
  expect "the button is read from a GPIO line" inside sh -c 'ls -l /proc/$(pidof kova_ctlserver)/fd | grep gpio-line'
  expect "a bouncing contact is not a press" once_quick bounce_then_press 1 1
  sleep 6 # a reset would come after five
  expect "short presses and bounces run no tool" test "$(runs_of_tools)" = "$tools"
  expect "two taps around a save are not a long press" once_quick tap_around_a_save 2 2
  expect "they do not reboot the camera" test "$(boot_count)" = "$boot"
}

erases_itself() {
  local boot
  boot=$(boot_count)
  inside kovactl settings name=Porch >/dev/null
  inside kovactl save --sync >/dev/null
  expect "a long press is logged" hold
  expect_not "nothing is erased before its end" inside grep -q "cfgmtd -c" /var/log/tools.log
  expect "the button can be released" run_machine release "$one"
  expect "the release reboots the camera" run_machine wait "$one" "$((boot + 1))"
  expect "the camera has factory settings" inside grep -qx "resolv.host.1.name=Kova Virtual Machine" /etc/system.cfg
  expect "no configuration is stored" inside test ! -e /mnt/flash/etc
  expect_not "the logo is gone" inside test -e /etc/persistent/user_logo
}

# shows SECONDS: presses the button with a terminal as output; the text is then in $work/shown.
shows() { KOVA_MACHINE=$machine DIR=$one script -qec "\"\$KOVA_MACHINE\" press \"\$DIR\" $1" /dev/null >"$work/shown"; }

shows_what_a_press_does() {
  local boot
  boot=$(boot_count)
  expect "a short press on a terminal succeeds" shows 0.5
  expect "it shows the camera's log" grep -qF "$UP" "$work/shown"
  expect_not "it shows no reset" grep -qF "resets itself" "$work/shown"
  # Well above five seconds: a loaded computer delivers the press late.
  expect "a long press on a terminal succeeds" shows 8
  expect "it shows the reset" grep -qF "$HELD" "$work/shown"
  expect "it waits until the camera is up again" grep -qF "boot=$((boot + 1))" "$work/shown"
}

# The owner is killed, so it cannot clean up.
ends_with_its_owner() {
  local owner other=$work/other.machine
  sleep 1000 &
  owner=$!
  "$machine" start "$other" --owner "$owner" >"$work/other.log" 2>&1 &
  eventually grep -q "on, process" "$other/state/supervisor.log"
  kill -KILL "$owner"
  expect "a machine does not outlive its owner" eventually grep -q "off (orphaned" "$other/state/supervisor.log"
  wait %% 2>/dev/null || true
  rm -rf "$other"
}

# outlive_number MACHINE DIR: kills the owner of a machine and reuses its PID for another process. Runs in a separate
# PID namespace.
outlive_number() {
  local owner heir='' log=$2/state/supervisor.log
  sleep 1000 &
  owner=$!
  "$1" start "$2" --owner "$owner" >/dev/null 2>&1 &
  until grep -q "on, process" "$log"; do sleep 0.05; done 2>/dev/null
  kill -KILL "$owner"
  wait "$owner"
  until [ "$heir" = "$owner" ]; do
    [ -z "$heir" ] || kill "$heir"
    echo $((owner - 1)) >/proc/sys/kernel/ns_last_pid
    sleep 1000 &
    heir=$!
  done
  until grep -q "off (orphaned" "$log"; do sleep 0.05; done
}

takes_no_other_for_its_owner() {
  local other=$work/other.machine apart=(unshare --pid --fork --mount-proc)
  [ "$(id -u)" -eq 0 ] || apart+=(--user --map-root-user)
  if ! "${apart[@]}" true 2>/dev/null; then
    echo "      left out: no namespaces"
    return
  fi
  expect "reuse of the owner's PID does not keep a machine alive" timeout 60 "${apart[@]}" \
    bash -c "$(declare -f outlive_number); outlive_number \"\$@\"" bash "$machine" "$other"
  rm -rf "$other"
}

# The first write exceeds the limit of one megabyte.
bounds_its_record() {
  local other=$work/other.machine times
  for times in once twice; do
    expect "a full record stops the machine, $times" \
      exit_status 1 env KOVA_MAX_RECORD=1 "$machine" start "$other" --record --owner $$
  done
  expect "the supervisor logs the reason" grep -q "off (full record" "$other/state/supervisor.log"
  expect "each start begins a new record" test "$(echo "$other"/state/writes/*.img)" = "$other/state/writes/1.img"
  rm -rf "$other"
}

ends_cleanly() {
  host_packages >"$work/host.after" 2>/dev/null || true
  expect "the host's architectures, modules and binary formats are unchanged" cmp "$work/host.before" "$work/host.after"
  expect "the machine stops" run_machine stop "$one"
  expect "the kernel powers the board off" grep -q "off (halt" "$one/state/supervisor.log"
  expect "status reports that it is off" exit_status 1 run_machine status "$one"
  expect "the machine starts again" start_machine
  local qemu
  qemu=$(qemu_process)
  rm -rf "$one"
  expect "it stops when its folder is deleted" eventually test ! -e "/proc/$qemu"
}

[ $# -gt 0 ] || set -- refuses_what_it_cannot_do boots passes_commands_on keeps_its_image \
  tells_the_kernels_figures confines_the_picture_decoder takes_a_logo survives_power_cuts obeys_its_button \
  erases_itself shows_what_a_press_does ends_with_its_owner takes_no_other_for_its_owner bounds_its_record ends_cleanly
run_parts "$@"
