# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared, see use_camera
# Builds the firmware of the camera: all files in DIR/root that are not in RAM or flash.

# Applets of BusyBox to leave out: they act on the host or hide a device tool.
readonly UNWANTED_APPLETS=(reboot halt poweroff init linuxrc setpriv)

# build_root MODE INFO: INFO is a new device description, or "".
build_root() {
  remove_firmware
  make_folders
  place_flash "$1"
  install_skeleton
  install_tools
  install_info "$2"
  install_factory_default
  write_manifest
  make_manifest_folders
  install_applets
  if [ "$1" = chroot ]; then copy_manifest; fi
}

remove_firmware() { rm -rf --one-file-system -- "${root:?}"/{bin,sbin,usr,lib,lib32,lib64}; }

make_folders() {
  if [ -L "$root/proc" ]; then rm "$root/proc"; fi
  mkdir -p "$root"/{bin,sbin,dev,proc,sys,etc,tmp,run,mnt/flash,var/log,usr/{bin,sbin,lib,libexec,share/{kova,factory}}}
  # Programs look for libraries in the folders of the host.
  local name
  for name in lib lib32 lib64; do
    if [ -L "/$name" ]; then
      mkdir -p "$root/usr/$name"
      ln -sfn "usr/$name" "$root/$name"
    fi
  done
  ln -sfn ../run "$root/var/run"
}

# The flash is /mnt/flash inside. With namespaces, DIR/flash is mounted there; without, it is stored there and DIR/flash
# is a link to it.
place_flash() {
  local seen=$root/mnt/flash
  if [ "$1" != chroot ]; then
    if [ -L "$flash" ]; then
      rm "$flash"
      mv -T "$seen" "$flash"
    fi
    mkdir -p "$flash" "$seen"
  elif [ ! -L "$flash" ]; then
    if [ -d "$flash" ]; then
      rmdir "$seen"
      mv -T "$flash" "$seen"
    fi
    ln -s root/mnt/flash "$flash"
  fi
}

# copy_skeleton SOURCE... TARGET: drops owners and group-write permissions of the checkout: the files must be root's.
copy_skeleton() {
  cp -a --no-preserve=ownership "$@"
  chmod -R go-w "${@: -1}"
}

install_skeleton() {
  local packaging=$CAMERA_HOME/../packaging
  copy_skeleton "$CAMERA_HOME/rootfs/sbin/." "$root/sbin/"
  copy_skeleton "$CAMERA_HOME/rootfs/usr/." "$root/usr/"
  # Install the services of the packages.
  cp "$packaging/dbus/kova-bus.conf" "$packaging"/runit/service* "$root/usr/share/kova/"
  cp "$packaging"/kova_{members,tidy} "$root/usr/libexec/"
}

install_tools() {
  local tools=$CAMERA_HOME/tools
  cp "$tools"/{cfgmtd,fwupdate,fwupdate.real,support,kova_cmd_apply_camera_name.sh} "$root/bin/"
  cp "$tools"/{reboot,fw_setenv,fw_printenv} "$root/usr/bin/"
  cp "$tools"/lib/*.sh "$root/usr/share/kova/"
}

# The description persists across stop and start, like the model of a real camera.
install_info() {
  local kept=$state/camera_info.json
  if [ -n "$1" ]; then write_atomically "$kept" <"$1"; fi
  if [ -e "$kept" ]; then cp "$kept" "$root/usr/share/kova/camera_info.json"; fi
}

# The factory default of /etc: the skeleton and the services, with the name of the model.
install_factory_default() {
  local factory=$root/usr/share/factory/etc name service
  copy_skeleton "$CAMERA_HOME/rootfs/etc" "$root/usr/share/factory/"
  copy_skeleton "$CAMERA_HOME"/../packaging/runit/kova_* "$factory/sv/"
  if has_sanitizers; then suit_sanitizers "$factory/sv"; fi
  name=$(sed -nE 's/.*"name"[[:space:]]*:[[:space:]]*"([^"\\]*)".*/\1/p' "$root/usr/share/kova/camera_info.json")
  printf 'resolv.host.1.name=%s\n' "${name%%$'\n'*}" >>"$factory/system.cfg"
  mkdir -p "$factory/service" "$factory/persistent"
  for service in "$factory"/sv/*; do
    keep_state_in_ram "$service"
    ln -s "../sv/${service##*/}" "$factory/service/${service##*/}"
  done
}

has_sanitizers() { grep -qs __asan_init "$(built_program kova_ctlserver)"; }

# suit_sanitizers SERVICES: removes a memory limit that is too low for a daemon with sanitizers, and installs
# stop_sanitized for the services whose leak check a SIGCONT would hang.
suit_sanitizers() {
  local name
  sed -i 's/ -d 536870912//' "$1/kova_ctlserver/run"
  for name in kova_ctlserver kova_sounds_leds kova_discovery_server; do
    mkdir "$1/$name/control"
    ln -s /usr/share/kova/stop_sanitized "$1/$name/control/t"
  done
}

# runsv(8) keeps its state in "supervise", which must be in RAM and not in the saved configuration.
keep_state_in_ram() {
  local name=${1##*/}
  ln -s "/run/sv/$name" "$1/supervise"
  if [ -d "$1/log" ]; then ln -s "/run/sv/$name.log" "$1/log/supervise"; fi
}

install_applets() {
  local applet
  busybox --install -s "$root/bin"
  for applet in "${UNWANTED_APPLETS[@]}"; do rm -f "$root/bin/$applet"; done
}

# Bubblewrap would create missing folders with access for root only.
make_manifest_folders() {
  local folders
  mapfile -t folders < <(cut -f 2 "$manifest" | sed "s,/[^/]*\$,," | sort -u)
  # $root in quotation marks: Bash would replace a "&" in it.
  mkdir -p "${folders[@]/#/"$root"}"
}

# Copies files: through hard links, root in the camera could write to files of the host. One cp(1) copies all libraries,
# whose paths are the same.
copy_manifest() {
  local source target same=()
  while IFS=$'\t' read -r source target; do
    if [ -f "$source" ] && [ "$source" -ef "$target" ]; then
      same+=("$target")
    else
      cp -a --reflink=auto -T -- "$source" "$root$target"
    fi
  done <"$manifest"
  [ ${#same[@]} -eq 0 ] || cp -aL --reflink=auto --parents -- "${same[@]}" "$root"
}
