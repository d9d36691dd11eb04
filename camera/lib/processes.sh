# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# The processes of a camera, seen from outside, and how they end.

readonly GRACE_MS=800 # from SIGTERM to SIGKILL

# camera_pids MODE: prints the process ids, as the host counts them, of everything that runs in the camera: by its PID
# namespace, or by its root folder where it has none.
camera_pids() {
  local name=root link=$root
  if [ "$1" != chroot ]; then
    name=ns/pid
    link=$(readlink "/proc/$(<"$init_pid_file")/ns/pid") || return 0
  fi
  local pattern
  pattern=$(printf '%s' "$link" | sed 's/[][*?\\]/\\&/g')
  { find /proc/[0-9]*/"$name" -maxdepth 0 -lname "$pattern" -printf '%h\n' 2>/dev/null || true; } |
    sed -e 's,^/proc/,,' -e 's,/.*,,'
}

# kind_of PID: prints "last" for what ends last (the first process, the system log and what writes to it),
# "supervisor" for those of services, "other" for the rest.
kind_of() {
  local words=()
  mapfile -d '' -t words 2>/dev/null <"/proc/$1/cmdline" || true # it may have ended meanwhile
  case "${words[*]}" in
    */bwrap\ * | *\ /sbin/init | logger\ * | syslogd\ * | "runsv syslogd" | "") echo last ;;
    runsv*) echo supervisor ;;
    *) echo other ;;
  esac
}

# is_alive PID: a zombie is not.
is_alive() {
  local line
  line=$({ cat "/proc/$1/stat"; } 2>/dev/null) || return 1
  case ${line##*) } in Z* | X*) return 1 ;; esac
}

wait_for_end() {
  local deadline=$(($(milliseconds) + $1)) pid
  shift
  for pid in "$@"; do
    while is_alive "$pid"; do
      [ "$(milliseconds)" -lt "$deadline" ] || return 1
      sleep 0.02
    done
  done
}

# end_processes MODE: SIGTERM to everything but the system log, SIGKILL after the grace to all that is left. Supervisors
# are told too, so that they bring nothing back, but not waited for: they stay until their service's output has ended.
end_processes() {
  local pid asked=() awaited=()
  for pid in $(camera_pids "$1"); do
    case $(kind_of "$pid") in
      supervisor) asked+=("$pid") ;;
      other) asked+=("$pid") awaited+=("$pid") ;;
    esac
  done
  [ ${#asked[@]} -eq 0 ] || kill -TERM "${asked[@]}" 2>/dev/null || true # some may have ended
  wait_for_end "$GRACE_MS" "${awaited[@]}" || true # what is left is killed next
  kill_processes "$1"
}

kill_processes() {
  local pids
  mapfile -t pids < <(camera_pids "$1")
  while [ ${#pids[@]} -gt 0 ]; do
    kill -KILL "${pids[@]}" 2>/dev/null || true # some may have ended meanwhile
    wait_for_end 5000 "${pids[@]}" || return 1
    mapfile -t pids < <(camera_pids "$1")
  done
}
