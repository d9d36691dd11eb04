#!/usr/bin/env bash
# supervise.sh run DIR MODE: the power supply and the boot loader of one camera. Boots it, boots it again when it asks to
# be rebooted, and ends it when told to. Whatever happens inside, this process is what keeps the camera alive: when it
# dies, the camera dies.
#
# supervise.sh sweep DIR: kills what is left of a camera in chroot mode, where the kernel does not end it with its
# supervisor.
#
# Told what to do by lines in the pipe DIR/state/control, which the camera sees as /run/initctl: "reboot", "halt".
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
# shellcheck source=camera/lib/common.sh
. "$here/common.sh"
# shellcheck source=camera/lib/modes.sh
. "$here/modes.sh"
# shellcheck source=camera/lib/processes.sh
. "$here/processes.sh"
# shellcheck source=camera/lib/boot.sh
. "$here/boot.sh"
# shellcheck source=camera/lib/procfs.sh
. "$here/procfs.sh"

readonly REBOOT_DELAY=0.1 # seconds in which the one who asked may still hear that it was accepted
readonly TICK=0.2         # seconds between two looks at a camera that says nothing

close_inherited_descriptors() {
  local path fd
  for path in /proc/self/fd/*; do
    fd=${path##*/}
    if [ "$fd" -gt 2 ]; then eval "exec $fd>&-"; fi
  done
}

note() { printf '%s %s\n' "$(date '+%F %T')" "$*"; }

# Descriptor 8 is the lock, 9 the control pipe, open for both ways so that neither end ever waits for the other.
take_camera() {
  exec 8>>"$lock"
  flock --timeout 2 8 || die "$dir is running already" # others hold it for a moment, to look
  echo $$ >"$state/supervisor.pid"
  rm -f "$control"
  mkfifo -m 600 "$control"
  exec 9<>"$control"
  trap 'echo halt >&9' TERM INT HUP
}

# Waits for the lock, which it gets when this process has died without ending the camera.
start_guardian() {
  flock "$lock" "$here/supervise.sh" sweep "$dir" 8>&- 9>&- &
  guardian_pid=$!
}

boot() {
  prepare_ram "$mode"
  if [ "$mode" = chroot ]; then make_proc_mirror; fi
  launch_init "$mode"
  echo "$init_pid" | write_atomically "$init_pid_file"
  note "boot $(<"$root/run/boot_count"), process $init_pid"
}

# next_event: waits for a line in the control pipe or the end of the first process; leaves it in `event`.
next_event() {
  event=
  until [ -n "$event" ]; do
    read -r -t "$TICK" -u 9 event || true # nothing within the tick
    if [ -z "$event" ]; then
      if ! is_alive "$child_pid"; then event=died; fi
      if [ "$mode" = chroot ]; then mirror_proc || note "/proc could not be refreshed"; fi
    fi
  done
}

shut_down() {
  end_processes "$mode"
  rm -f "$init_pid_file"
  wait "$child_pid" 2>/dev/null || true # however it ended
  note "down ($event)"
}

run() {
  local mode=$1 event=reboot child_pid init_pid guardian_pid=
  take_camera
  if [ "$mode" = chroot ]; then start_guardian; fi
  while [ "$event" = reboot ]; do
    boot
    next_event
    if [ "$event" = reboot ]; then sleep "$REBOOT_DELAY"; fi
    shut_down
  done
  rm -f "$root/run/booted" "$state/supervisor.pid"
  if [ -n "$guardian_pid" ]; then kill "$guardian_pid"; fi
}

use_camera "$2"
case $1 in
  run)
    close_inherited_descriptors
    run "$3"
    ;;
  sweep) kill_processes chroot ;;
esac
