# shellcheck shell=bash disable=SC2034 # variables are shared
# Shared by all parts of the machine: the paths in DIR and error messages.

MACHINE_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly MACHINE_HOME

die() {
  printf 'machine: %s\n' "$*" >&2
  exit 1
}

# use_machine DIR: sets the paths of the machine in DIR. All of them are absolute.
use_machine() {
  case ${1:-} in
    "") die "DIR is missing" ;;
    -*) die "\"$1\" is not a folder; write ./$1 for a name that starts with \"-\"" ;;
    *[,]*) die "\"$1\" contains a comma, which ends a path in QEMU's options" ;;
  esac
  dir=$(realpath -m -- "$1")
  flash=$dir/flash.img # persistent storage
  slots=$dir/slots.img # the disk with the system slots, if the machine boots by U-Boot
  console=$dir/console.log
  state=$dir/state # files of the supervisor: lock, control pipe, sockets and pipes of QEMU, logs
  control=$state/control
  lock=$state/lock
  start_lock=$state/start.lock
  supervisor_log=$state/supervisor.log
}

# The supervisor holds the lock exclusively during its lifetime.
is_running() { [ -e "$lock" ] && ! flock --nonblock --shared "$lock" true; }

# milliseconds: prints a monotonic time.
milliseconds() {
  local seconds fraction
  IFS=' .' read -r seconds fraction _ </proc/uptime
  echo $((seconds * 1000 + 10#$fraction * 10))
}
