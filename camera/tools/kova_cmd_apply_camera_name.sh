#!/bin/sh
# Sets the host name to the name of the camera in system.cfg.
# shellcheck source=camera/tools/lib/tool.sh
. /usr/share/kova/tool.sh
# shellcheck source=camera/tools/lib/hostname.sh
. /usr/share/kova/hostname.sh

name_in_store() { grep '^resolv\.host\.1\.name=' /etc/system.cfg 2>/dev/null; }

# The control server runs this tool before it writes system.cfg, so wait in the background for the name to change, at
# most one second.
await_new_name() {
  tries=20
  while [ "$tries" -gt 0 ] && [ "$(name_in_store)" = "$1" ]; do
    tries=$((tries - 1))
    sleep 0.05
  done
  apply_camera_name
}

found=$(name_in_store) || true # there may be none
apply_camera_name
await_new_name "$found" </dev/null >/dev/null 2>&1 &
