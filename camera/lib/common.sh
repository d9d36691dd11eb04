# shellcheck shell=bash disable=SC2034 # variables are shared
# Shared by all parts of the virtual camera: the paths in DIR and error messages.

CAMERA_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly CAMERA_HOME
readonly SOCKET_PATH_LIMIT=107 # sun_path of unix(7) without the final NUL
readonly BUS_SOCKET=run/kova/bus

die() {
  printf 'camera: %s\n' "$*" >&2
  exit 1
}

# use_camera DIR: sets the paths of the camera in DIR. All of them are absolute.
use_camera() {
  case ${1:-} in
    "") die "DIR is missing, for example: ./dev camera start DIR [--info FILE]" ;;
    -*) die "\"$1\" is not a folder; write ./$1 for a name that starts with \"-\"" ;;
  esac
  dir=$(realpath -m -- "$1")
  root=$dir/root   # the root file system, as seen from the host
  flash=$dir/flash # persistent storage
  state=$dir/state # files of the supervisor: lock, control pipe, mode, logs
  control=$state/control
  lock=$state/lock
  start_lock=$state/start.lock
  init_pid_file=$state/init.pid
  manifest=$state/manifest
  supervisor_log=$state/supervisor.log
  local path=$root/$BUS_SOCKET
  local length
  length=$(LC_ALL=C && printf '%s' "${#path}")
  [ "$length" -le "$SOCKET_PATH_LIMIT" ] ||
    die "\"$dir\" is too long: the bus socket path would have $length bytes, at most $SOCKET_PATH_LIMIT are possible"
}

# The supervisor holds the lock exclusively during its lifetime.
is_running() { [ -e "$lock" ] && ! flock --nonblock --shared "$lock" true; }

# write_atomically FILE: replaces FILE by standard input.
write_atomically() {
  cat >"$1.new"
  mv -T -- "$1.new" "$1"
}

# milliseconds: prints a monotonic time.
milliseconds() {
  local seconds fraction
  IFS=' .' read -r seconds fraction _ </proc/uptime
  echo $((seconds * 1000 + 10#$fraction * 10))
}
