#!/usr/bin/env bash
# supervise.sh run DIR MODE: the power supply and boot loader of a camera. Boots it, reboots it on request and stops it.
# The camera lives only as long as this process.
#
# supervise.sh sweep DIR: kills the remaining processes of a camera in chroot mode, where they survive the supervisor.
#
# Commands are lines in the pipe DIR/state/control, /run/initctl inside the camera: "reboot", "halt".
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

readonly REBOOT_DELAY=0.1 # seconds to let the requester receive its answer
readonly TICK=0.2         # seconds between checks of a silent camera

close_inherited_descriptors() {
  local path fd
  for path in /proc/self/fd/*; do
    fd=${path##*/}
    if [ "$fd" -gt 2 ]; then eval "exec $fd>&-"; fi
  done
}

note() { printf '%s %s\n' "$(date '+%F %T')" "$*"; }

# Descriptor 8 is the lock, 9 the control pipe, opened read-write so that neither end blocks.
take_camera() {
  exec 8>>"$lock"
  flock --timeout 2 8 || die "$dir is already running" # others hold it briefly to check it
  echo $$ >"$state/supervisor.pid"
  rm -f "$control"
  mkfifo -m 600 "$control"
  exec 9<>"$control"
  trap 'echo halt >&9' TERM INT HUP
}

# Starts a child that waits for the lock and then sweeps: the lock is released if this process dies without a shutdown.
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

# Whether the lock is still in DIR; false if DIR was deleted or replaced.
has_folder() { [ "$lock" -ef /proc/self/fd/8 ]; }

# next_event: waits for a line in the control pipe, the exit of the first process or the deletion of DIR; sets `event`.
# A read that times out within a line returns the partial line, which is kept in `line`.
next_event() {
  local part line=
  event=
  until [ -n "$event" ]; do
    if read -r -t "$TICK" -u 9 part; then
      event=$line$part
      line=
    else
      line+=$part
    fi
    if [ -z "$event" ]; then
      if ! is_alive "$child_pid"; then event=died; fi
      if ! has_folder; then event=deleted && return; fi
      if [ "$mode" = chroot ]; then mirror_proc || note "/proc could not be refreshed"; fi
    fi
  done
}

shut_down() {
  end_processes "$mode"
  rm -f "$init_pid_file"
  wait "$child_pid" 2>/dev/null || true # whatever its exit status
  note "down ($event)"
}

run() {
  local mode=$1 event=reboot child_pid init_pid guardian_pid=
  take_camera
  if [ "$mode" = chroot ]; then start_guardian; fi
  while [ "$event" = reboot ] && has_folder; do
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
