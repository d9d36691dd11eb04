#!/bin/sh
# Makes the camera's name in system.cfg its host name.
# shellcheck source=camera/tools/lib/tool.sh
. /usr/share/kova/tool.sh
# shellcheck source=camera/tools/lib/hostname.sh
. /usr/share/kova/hostname.sh

apply_camera_name
