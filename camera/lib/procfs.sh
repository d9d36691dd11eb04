# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# /proc of a camera that may not mount one: copies of the files that a camera's programs read, refreshed by the
# supervisor. Of processes it shows the camera's own only, so that nothing inside finds a process of the host by name.

readonly PROC_FILES=(cpuinfo loadavg meminfo net/dev net/route net/ipv6_route stat uptime version filesystems)

mirror_proc() {
  local proc=$root/proc entry pid pids=() files=()
  mapfile -t pids < <(camera_pids chroot)
  for entry in "$proc"/[0-9]*; do
    [[ " ${pids[*]} " == *" ${entry##*/} "* ]] || rm -rf "$entry"
  done
  for pid in "${pids[@]}"; do files+=("$pid"/{cmdline,comm,exe,stat,status}); done
  (cd /proc && cp -P --parents "${PROC_FILES[@]}" "${files[@]}" "$proc") 2>/dev/null || true
}
