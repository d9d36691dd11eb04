# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# /proc of a camera that may not mount one: copies of the files that a camera's programs read, refreshed by the
# supervisor. Of processes it shows the camera's own only, so that nothing inside finds a process of the host by name.
#
# /proc leads to one of two snapshots, which is replaced by the other once that is complete. The figures that programs
# keep open lie beside the snapshots and are rewritten in place.

readonly FIGURES=(cpuinfo filesystems loadavg meminfo net/dev net/route net/ipv6_route stat uptime version)

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
  (cd /proc && cp -P --parents "${files[@]}" "$mirror/$slot") 2>/dev/null || true # processes end while they are copied
  drop_incomplete "$mirror/$slot"
  ln -s ../figures/{cpuinfo,filesystems,loadavg,meminfo,net,stat,uptime,version} "$mirror/$slot"
  ln -sfn "$slot" "$mirror/next"
  mv -T "$mirror/next" "$mirror/now"
}

# Of a process that ended meanwhile there may be half a copy.
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

# Written over, not emptied first: a reader never finds a file without its figures.
refresh_figures() {
  local name text file
  for name in "${FIGURES[@]}"; do
    file=$root/run/proc/figures/$name
    IFS= read -r -d '' text <"/proc/$name" || true # read fails at an end without NUL
    if [ ! -e "$file" ] || [ "$(stat -c %s "$file")" -gt "${#text}" ]; then
      printf '%s' "$text" >"$file"
    else
      printf '%s' "$text" 1<>"$file"
    fi
  done 2>/dev/null
}
