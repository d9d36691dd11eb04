#!/bin/sh
# Makes the camera's name in system.cfg its host name.
# shellcheck source=camera/tools/lib/tool.sh
. /usr/share/kova/tool.sh
# shellcheck source=camera/tools/lib/hostname.sh
. /usr/share/kova/hostname.sh

# The control server runs this tool before it writes its change to system.cfg. So the name found there may be about to
# change: wait for that, for a second at most, without keeping the caller.
await_new_name() {
  tries=20
  while [ "$tries" -gt 0 ] && [ "$(host_name_of_camera)" = "$1" ]; do
    tries=$((tries - 1))
    sleep 0.05
  done
  apply_camera_name
}

found=$(host_name_of_camera)
apply_camera_name
await_new_name "$found" </dev/null >/dev/null 2>&1 &
