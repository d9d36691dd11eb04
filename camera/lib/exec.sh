# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# Running a command inside a camera from outside.

readonly NOT_RUN=125 # exit status when it was not the command that failed
readonly ENTER_TIMEOUT_MS=10000

# wait_until_booted: a camera that is rebooting is about to be back.
wait_until_booted() {
  local deadline=$(($(milliseconds) + ENTER_TIMEOUT_MS))
  while is_running; do
    if [ -e "$init_pid_file" ] && [ -e "$root/run/booted" ]; then return; fi
    [ "$(milliseconds)" -lt "$deadline" ] || return 1
    sleep 0.02
  done
  return 1
}

# enter CMD...: replaces this shell by CMD inside the camera.
enter() {
  local environment pid mode
  mode=$(<"$state/mode")
  pid=$(<"$init_pid_file")
  mapfile -t environment < <(camera_environment)
  set -- /bin/env -i "${environment[@]}" "$@"
  case $mode in
    namespaces)
      exec setpriv --inh-caps=-all --bounding-set="$(bounding_set "${NAMESPACE_CAPABILITIES[@]}")" \
        nsenter --target "$pid" --mount --uts --ipc --pid -- "$@"
      ;;
    user-namespaces)
      exec nsenter --target "$pid" --user --preserve-credentials --mount --uts --ipc --pid -- "$@"
      ;;
    chroot)
      cd /
      confine
      exec "${confined[@]}" "$root" "$@"
      ;;
  esac
}

# wait_for_service TIMEOUT_MS [BOOT]: returns once kova_ctlserver owns its name, in boot number BOOT or a later one.
wait_for_service() {
  local deadline=$(($(milliseconds) + $1)) boot=${2:-0}
  while is_running && [ "$(milliseconds)" -lt "$deadline" ]; do
    if has_booted "$boot" && (enter /usr/share/kova/wait_ready $((deadline - $(milliseconds)))) 2>/dev/null; then
      has_booted "$boot" && return
    fi
    sleep 0.02
  done
  return 1
}

has_booted() {
  local count
  [ -e "$root/run/booted" ] && [ -e "$init_pid_file" ] && count=$(cat "$root/run/boot_count" 2>/dev/null) &&
    [ "${count:-0}" -ge "$1" ]
}
