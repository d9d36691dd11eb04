#!/usr/bin/env bash
# Tests the fish completion: fish_test.sh KOVACTL COMPLETION. Exit status 77: fish is not installed.
set -euo pipefail

command -v fish >/dev/null || { echo "skipped: fish is not installed" && exit 77; }
PATH="$(dirname "$1"):$PATH"
completion=$2
HOME=$(mktemp -d)
export HOME XDG_CONFIG_HOME=$HOME XDG_DATA_HOME=$HOME
trap 'rm -rf "$HOME"' EXIT

failures=0

# expect WORD LINE: completing LINE must offer WORD or, if WORD is "-", nothing.
expect() {
  local offered
  offered=$(fish --no-config -c "source '$completion'; complete -C \"kovactl $2\"" 2>&1 | cut -f 1)
  if [[ $1 == - && -z $offered ]]; then return; fi
  if ! grep -xF -e "$1" <<<"$offered" >/dev/null; then
    echo "\"$2\" offers \"${offered//$'\n'/ }\", not \"$1\"" >&2
    failures=$((failures + 1))
  fi
}

expect stats st
expect listen ''
expect bridge --host=cam\ br
expect --json --j
expect --host stats\ --ho
expect --version --v
expect cpuInfo "stats cpu"
expect --watch "stats --w"
expect start "--bus unix:path=/x service "
expect start "-H root@cam service st"
expect passwd "user p"
expect - "user passwd x"
expect event-heatmap "get event-h"
expect --wait "put logo --w"
expect GetSystemStats "call Get"
expect wifi:= "call GetSystemStats wi"
expect what=snapshot "call GetRequest what=sn"
expect - "call GetRequest what=_"
expect sync:=true "call SaveToFlash sync:="
expect - "call GetRequest uri=ht"
expect kova_ctlserver "call Reboot --to "
expect kova_sounds_leds "listen kova_s"
expect - "listen kova_sounds_leds "
expect name= "settings n"
expect timezones tim
expect help he
expect list "service l"
expect - "service list "
expect firmware "help fi"
expect stop "help service s"
if kovactl timezones Paris >/dev/null 2>&1; then
  expect timezone=Europe/Paris "settings timezone=Europe/P"
  expect timezone=Europe/Paris "call ChangeDeviceSettings timezone=Europe/P"
  expect - "settings name=Europe/P"
fi

exit $((failures > 0))
