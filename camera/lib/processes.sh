# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# Finds and stops the processes of a camera from outside.

readonly GRACE_MS=800 # from SIGTERM to SIGKILL

# camera_pids MODE: prints the process ids on the host of all processes in the camera, found by the PID namespace of
# `init_pid` or, without one, by their root folder.
camera_pids() {
  local name=root link=$root
  if [ "$1" != chroot ]; then
    name=ns/pid
    link=$(readlink "/proc/$init_pid/ns/pid") || return 0
  fi
  local pattern
  pattern=$(printf '%s' "$link" | sed 's/[][*?\\]/\\&/g')
  # The suffix of a deleted root folder.
  { find /proc/[0-9]*/"$name" -maxdepth 0 \( -lname "$pattern" -o -lname "$pattern (deleted)" \) -printf '%h\n' \
    2>/dev/null || true; } |
    sed -e 's,^/proc/,,' -e 's,/.*,,'
}

# kind_of PID: prints "last" for processes that stop last (the first process, the system log and its writers),
# "supervisor" for service supervisors, else "other".
kind_of() {
  local words=()
  mapfile -d '' -t words 2>/dev/null <"/proc/$1/cmdline" || true # it may have exited meanwhile
  case "${words[*]}" in
    */bwrap\ * | *\ /sbin/init | logger\ * | syslogd\ * | "runsv syslogd" | "") echo last ;;
    runsv*) echo supervisor ;;
    *) echo other ;;
  esac
}

# is_alive PID: false for zombies.
is_alive() {
  local stat=
  # No cat(1): supervisors ask five times a second. read fails at the end of input without NUL.
  { IFS= read -r -d '' stat <"/proc/$1/stat"; } 2>/dev/null || true
  case ${stat##*) } in "" | Z* | X*) return 1 ;; esac
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

# end_processes MODE: sends SIGTERM to all processes but the system log, and SIGKILL to the rest after a grace period.
# Supervisors get SIGTERM too, so that they restart nothing, but are not waited for: they run until the output of their
# service is closed.
end_processes() {
  local pid asked=() awaited=()
  for pid in $(camera_pids "$1"); do
    case $(kind_of "$pid") in
      supervisor) asked+=("$pid") ;;
      other) asked+=("$pid") awaited+=("$pid") ;;
    esac
  done
  [ ${#asked[@]} -eq 0 ] || kill -TERM "${asked[@]}" 2>/dev/null || true # some may have exited
  wait_for_end "$GRACE_MS" "${awaited[@]}" || true # the rest is killed next
  kill_processes "$1"
}

kill_processes() {
  local pids
  mapfile -t pids < <(camera_pids "$1")
  while [ ${#pids[@]} -gt 0 ]; do
    kill -KILL "${pids[@]}" 2>/dev/null || true # some may have exited meanwhile
    wait_for_end 5000 "${pids[@]}" || return 1
    mapfile -t pids < <(camera_pids "$1")
  done
}
