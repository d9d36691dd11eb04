# shellcheck shell=bash disable=SC2034 # variables are shared
# What every part of the virtual camera shares: where its things lie in DIR, and how it complains.

CAMERA_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly CAMERA_HOME
readonly SOCKET_PATH_LIMIT=107 # sun_path of unix(7), less its closing NUL
readonly BUS_SOCKET=run/kova/bus

die() {
  printf 'camera: %s\n' "$*" >&2
  exit 1
}

# use_camera DIR: sets the paths of the camera in DIR. All of them are absolute.
use_camera() {
  [ -n "${1:-}" ] || die "which camera? DIR is missing"
  dir=$(realpath -m -- "$1")
  root=$dir/root   # the live root, as a process of the host sees it
  flash=$dir/flash # what survives a reboot
  state=$dir/state # what the outside keeps about a camera: lock, control pipe, mode, logs
  control=$state/control
  lock=$state/lock
  init_pid_file=$state/init.pid
  manifest=$state/manifest
  supervisor_log=$state/supervisor.log
  local path=$root/$BUS_SOCKET
  local length
  length=$(LC_ALL=C && printf '%s' "${#path}")
  [ "$length" -le "$SOCKET_PATH_LIMIT" ] ||
    die "\"$dir\" is too long: the bus socket's path would have $length bytes, a socket path ends at $SOCKET_PATH_LIMIT"
}

# The supervisor holds the lock exclusively for as long as it lives.
is_running() { [ -e "$lock" ] && ! flock --nonblock --shared "$lock" true; }

# write_atomically FILE: replaces FILE by standard input.
write_atomically() {
  cat >"$1.new"
  mv -T -- "$1.new" "$1"
}

# milliseconds: the time since some fixed moment.
milliseconds() {
  local seconds fraction
  IFS=' .' read -r seconds fraction _ </proc/uptime
  echo $((seconds * 1000 + 10#$fraction * 10))
}
