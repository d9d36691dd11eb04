# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# /proc for a camera that cannot mount one: copies of the files that its programs read, refreshed by the supervisor. It
# contains only processes of the camera, so that no program inside finds a process of the host by name.
#
# /proc is a link to one of two snapshots and switches to the other one when that is complete. Files that programs keep
# open are stored beside the snapshots and rewritten in place.

readonly FIGURES=(cpuinfo filesystems loadavg meminfo net/dev net/route net/ipv6_route stat uptime version)
declare -A figure_sizes # of the files, to start no stat(1) for each of them in each turn

make_proc_mirror() {
  rm -rf --one-file-system -- "${root:?}/proc"
  mkdir -p "$root"/run/proc/figures/net
  ln -s run/proc/now "$root/proc"
  mirror_proc
}

mirror_proc() {
  refresh_figures
  local mirror=$root/run/proc slot=a pid files=()
  if [ "$(readlink "$mirror/now")" = a ]; then slot=b; fi
  rm -rf "${mirror:?}/$slot"
  mkdir "$mirror/$slot"
  for pid in $(camera_pids chroot); do files+=("$pid"/{cmdline,comm,exe,stat,status}); done
  (cd /proc && cp -P --parents "${files[@]}" "$mirror/$slot") 2>/dev/null || true # processes exit while they are copied
  drop_incomplete "$mirror/$slot"
  ln -s ../figures/{cpuinfo,filesystems,loadavg,meminfo,net,stat,uptime,version} "$mirror/$slot"
  ln -sfn "$slot" "$mirror/next"
  mv -T "$mirror/next" "$mirror/now"
}

# Removes partial copies of processes that exited meanwhile.
drop_incomplete() {
  local folder file
  for folder in "$1"/[0-9]*; do
    for file in stat status cmdline; do
      if [ ! -s "$folder/$file" ]; then
        rm -rf "$folder"
        break
      fi
    done
  done
}

# Overwrites without truncation, so that readers never see an empty file.
refresh_figures() {
  local name text file
  for name in "${FIGURES[@]}"; do
    file=$root/run/proc/figures/$name
    text=
    IFS= read -r -d '' text <"/proc/$name" || true # read fails at the end of input without NUL
    if [ ! -e "$file" ] || [ "${figure_sizes[$name]:-0}" -gt "${#text}" ]; then
      printf '%s' "$text" >"$file"
    else
      printf '%s' "$text" 1<>"$file"
    fi
    figure_sizes[$name]=${#text}
  done 2>/dev/null
}
