#!/usr/bin/env bash
# machine_test.sh: tests the camera on a whole emulated computer. Exit status 77: QEMU is not installed. KOVA_BUILD is
# the folder of the programs, built for 64-bit ARM.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
machine=$here/../machine
# An emulator on a busy computer.
export KOVA_TIME_FACTOR=${KOVA_TIME_FACTOR:-5}
# shellcheck source=camera/tests/harness.sh
. "$here/../../camera/tests/harness.sh"
readonly SIGSYS_STATUS=$((128 + 31))
readonly PRESSED="Reset button (case) up after" HELD="Reset button (case) can be released now"
left_out=0 has_logo=

run_machine() { "$machine" "$@"; }
inside() { run_machine exec "$one" -- "$@" </dev/null; }
put_inside() { run_machine exec "$one" -- sh -c "cat >'$2' && chmod 755 '$2'" <"$1"; }
printed_inside() { [ "$(inside sh -c "$1")" = "$2" ]; }
boot_count() { inside cat /run/boot_count; }
log_lines() { inside grep -c -- "$1" /var/log/messages; }
leave_out() {
  printf 'left  %s\n' "$1"
  left_out=$((left_out + 1))
}
figure() { printf 'figure %-40s %s\n' "$1" "$2"; }
host_packages() { dpkg --print-foreign-architectures && cat /proc/modules && ls /proc/sys/fs/binfmt_misc; }

clean_up() {
  [ ! -e "$one/state" ] || run_machine cut "$one" >/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

refuses_what_it_cannot_do() {
  mkdir -p "$work/other"
  touch "$work/other/file"
  expect "a folder with other files is left alone" exit_status 1 run_machine start "$work/other"
  expect "an unknown command is refused" exit_status 2 run_machine fly "$one"
  expect "a machine that is off runs no command" exit_status 125 run_machine exec "$one" -- true
  expect "and has no button" exit_status 1 run_machine press "$one" 1
  expect "and is off" exit_status 1 run_machine status "$one"
}

boots() {
  local begin qemu
  host_packages >"$work/host.before" 2>/dev/null || true
  "$here/../mkimage" "${KOVA_MACHINE_IMAGE:-$here/../../build/machine/image}"
  begin=$(date +%s%N)
  expect "start returns once kova_ctlserver owns its name" run_machine start "$one"
  figure "power-on until it answers on the bus" "$((($(date +%s%N) - begin) / 1000000)) ms"
  qemu=$(sed -n 's/.*process //p' "$one/state/supervisor.log" | tail -n 1)
  figure "processor time of QEMU for it" "$(ps -o time= -p "$qemu")"
  figure "resident memory of QEMU" "$(ps -o rss= -p "$qemu") KiB"
  expect "the daemon answers on the bus" inside busctl --address=unix:path=/run/kova/bus \
    call kova.kova_ctlserver / org.freedesktop.DBus.Peer Ping
  expect "a running machine is not started again" exit_status 1 run_machine start "$one"
  expect "the kernel is of another processor" printed_inside "uname -m" aarch64
  expect_not "the firmware cannot be changed" inside touch /usr/bin/new /bin/new /sbin/new
  # shellcheck disable=SC2016 # expanded inside
  figure "resident memory of kova_ctlserver" \
    "$(inside sh -c 'sed -n "s/^VmRSS:[[:space:]]*//p" /proc/$(pidof kova_ctlserver)/status')"
}

passes_commands_on() {
  head -c 300000 /dev/urandom >"$work/blob"
  expect "exec passes the exit status on" exit_status 7 inside sh -c 'exit 7'
  expect "exec passes any bytes both ways" run_machine exec "$one" -- cat <"$work/blob"
  expect "unchanged" cmp "$work/blob" "$work/output"
  inside sh -c 'echo complaint >&2; echo text' >"$work/out" 2>"$work/err"
  expect "output and errors are apart" test "$(cat "$work/out") $(cat "$work/err")" = "text complaint"
  # shellcheck disable=SC2016 # not expanded anywhere
  expect "arguments keep their form" test "$(inside printf '%s|' 'a  b' "it's" '$HOME')" = "a  b|it's|\$HOME|"
  timeout 2 "$machine" exec "$one" -- sh -c 'while :; do echo noise; done' >/dev/null </dev/null || true
  expect "an asker that went away leaves no noise behind" test "$(inside echo quiet)" = quiet
  expect "nor a command" printed_inside 'ps | grep -c "do [e]cho noise"' 0
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
  expect "statistics are what the kernel says" "$here/compare_stats" "$work/stats"
}

act() { inside /tmp/kova_confined "$1" /tmp/picture; }
confines_the_picture_decoder() {
  local name
  put_inside "$(find "$KOVA_BUILD" -name kova_confined -type f -perm -u+x -print -quit)" /tmp/kova_confined
  inside sh -c 'printf content >/tmp/picture; chmod 666 /tmp/picture'
  expect "a confined decoder reads its picture" act read
  for name in write create truncate rename chmod execute kill trace mount unshare; do
    expect "the kernel ends one that tries to $name" exit_status "$SIGSYS_STATUS" act "$name"
  done
  for name in unlink mkdir socket fork thread memory; do
    expect "and refuses it $name" exit_status 1 act "$name"
  done
  expect "the picture is unchanged" printed_inside "cat /tmp/picture" content
}

# An authority, and certificates of a server and of the camera.
make_certificates() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Authority" \
    -keyout "$work/ca.key" -out "$work/ca.crt"
  local name
  for name in server camera; do
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$name" \
      -keyout "$work/$name.key" -out "$work/$name.csr"
    openssl x509 -req -in "$work/$name.csr" -CA "$work/ca.crt" -CAkey "$work/ca.key" -CAcreateserial -days 2 \
      -out "$work/$name.crt"
  done
  cat "$work/camera.crt" "$work/camera.key" >"$work/camera.pem"
}

put_logo() { inside kovactl put logo "$1" --file /tmp/logo.local --timeout 60 --wait; }
# The decoder has three seconds and one of processor time, which a busy computer takes from the machine.
put_logo_in_time() {
  local attempt
  for attempt in {1..4}; do
    if put_logo "$1?$attempt"; then return; fi
    inside tail -n 3 /var/log/messages
  done
  return 1
}
was_too_slow() { grep -q "kova_imageprobe exceeded its time" "$work/output"; }

takes_a_logo() {
  local url
  make_certificates >"$work/openssl.log" 2>&1
  mkdir "$work/served"
  cp "$here/../../camera/samples/logo.png" "$work/served/"
  echo "not a picture" >"$work/served/logo.txt"
  mkfifo "$work/serving"
  "$here/serve" "$work/served" "$work/server.crt" "$work/server.key" "$work/port" <"$work/serving" 2>/dev/null &
  exec 6>"$work/serving"
  eventually test -s "$work/port"
  url=https://10.0.2.2:$(<"$work/port")
  put_inside "$work/camera.pem" /etc/persistent/server.pem
  put_inside "$work/ca.crt" /etc/persistent/controller.crt
  inside chmod 600 /etc/persistent/server.pem
  put_inside "$work/served/logo.png" /tmp/logo.local
  if ! put_logo_in_time "$url/logo.png" >"$work/output" 2>&1 && was_too_slow; then
    leave_out "a logo is decoded: the computer is too busy for the decoder's time"
  else
    has_logo=yes
    expect "a logo is decoded and installed" inside cat /etc/persistent/user_logo
    expect "unchanged" cmp "$work/served/logo.png" "$work/output"
  fi
  put_inside "$work/served/logo.txt" /tmp/logo.local
  expect_not "what is no picture is not" put_logo "$url/logo.txt"
  expect "since it was judged" grep -q VALIDATION_FAILED "$work/output"
  exec 6>&-
}

survives_power_cuts() {
  inside kovactl settings name=Porch >/dev/null
  inside kovactl save --sync >/dev/null
  inside kovactl settings name=Unsaved >/dev/null
  expect "the power can be cut" run_machine cut "$one"
  expect "and comes back" run_machine start "$one"
  expect "what was saved is there" inside grep -qx "resolv.host.1.name=Porch" /etc/system.cfg
  if [ -n "$has_logo" ]; then
    inside cat /etc/persistent/user_logo >"$work/installed"
    expect "and the logo" cmp "$work/served/logo.png" "$work/installed"
  fi
  local boot
  boot=$(boot_count)
  expect "the board can be reset" run_machine reset "$one"
  expect "and boots" run_machine wait "$one" "$((boot + 1))"
}

# A computer that leaves the machine no time for 250 ms makes two presses of one, or ends a long one early.
hold_until_it_counts() {
  run_machine press "$one"
  eventually inside grep -q "$HELD" /var/log/messages
}

# Of the device, in this boot.
runs_of_tools() { inside sh -c '[ ! -e /var/log/tools.log ] || cat /var/log/tools.log'; }

obeys_its_button() {
  local boot tools
  boot=$(boot_count)
  tools=$(runs_of_tools)
  expect "the button can be pressed" run_machine press "$one" 0.5
  expect "the daemon reads it from the character device" eventually inside grep -q "$PRESSED" /var/log/messages
  expect_not "as a short press" inside grep -q "$HELD" /var/log/messages
  # shellcheck disable=SC2016 # expanded inside
  expect "and holds its line" inside sh -c 'ls -l /proc/$(pidof kova_ctlserver)/fd | grep gpio-line'
  sleep 6 # a reset would come after five
  expect "a short press does nothing" test "$(runs_of_tools)" = "$tools"
  expect "a long one is told of" hold_until_it_counts
  expect "it can be released" run_machine release "$one"
  expect "which reboots the camera" run_machine wait "$one" "$((boot + 1))"
  expect "with its factory's settings" inside grep -qx "resolv.host.1.name=Kova Virtual Machine" /etc/system.cfg
  expect "and an empty flash" inside test ! -e /mnt/flash/etc
  expect_not "the logo is gone" inside test -e /etc/persistent/user_logo
}

ends_cleanly() {
  host_packages >"$work/host.after" 2>/dev/null || true
  expect "the host has the architectures, modules and formats it had" cmp "$work/host.before" "$work/host.after"
  expect "it shuts down" run_machine stop "$one"
  expect "by its own power-off" grep -q "off (halt" "$one/state/supervisor.log"
  expect "and is off" exit_status 1 run_machine status "$one"
  expect "it starts again" run_machine start "$one"
  local qemu
  qemu=$(sed -n 's/.*process //p' "$one/state/supervisor.log" | tail -n 1)
  rm -rf "$one"
  expect "it ends when its folder is deleted" eventually test ! -e "/proc/$qemu"
}

command -v qemu-system-aarch64 >/dev/null || skip "QEMU is not installed"
[ $# -gt 0 ] || set -- refuses_what_it_cannot_do boots passes_commands_on tells_the_kernels_figures \
  confines_the_picture_decoder takes_a_logo survives_power_cuts obeys_its_button ends_cleanly
for part in "$@"; do "$part"; done
figure "the whole test" "$SECONDS s, with $left_out expectations left out"
[ "$failures" -eq 0 ] || { echo "$failures expectations failed" && exit 1; }
