# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# Runs commands inside a camera.

readonly NOT_RUN=125 # exit status if the command could not be run
readonly ENTER_TIMEOUT_MS=20000

# wait_until_booted: waits out a reboot; fails if the camera is off.
wait_until_booted() {
  local deadline=$(($(milliseconds) + ENTER_TIMEOUT_MS))
  while is_running; do
    if [ -e "$init_pid_file" ] && [ -e "$root/run/booted" ]; then return; fi
    [ "$(milliseconds)" -lt "$deadline" ] || return 1
    sleep 0.02
  done
  return 1
}

# enter CMD...: replaces this shell with CMD inside the camera.
enter() {
  local environment pid mode
  mode=$(<"$state/mode")
  pid=$(<"$init_pid_file")
  mapfile -t environment < <(camera_environment)
  set -- /bin/env -i "${environment[@]}" "$@"
  # Use the root of the first process: in a camera started in a chroot, the mount namespace has the host's root.
  local namespaces=(--mount --uts --ipc --pid "--root=/proc/$pid/root" "--wd=/proc/$pid/root")
  case $mode in
    namespaces)
      exec setpriv --inh-caps=-all --bounding-set="$(bounding_set "${NAMESPACE_CAPABILITIES[@]}")" \
        nsenter --target "$pid" "${namespaces[@]}" -- "$@"
      ;;
    user-namespaces)
      exec nsenter --target "$pid" --user --preserve-credentials "${namespaces[@]}" -- "$@"
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
  [ -e "$root/run/booted" ] && [ -e "$init_pid_file" ] && { read -r count <"$root/run/boot_count"; } 2>/dev/null &&
    [ "${count:-0}" -ge "$1" ]
}
