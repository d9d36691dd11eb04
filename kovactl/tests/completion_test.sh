#!/usr/bin/env bash
# Tests the bash completion: completion_test.sh KOVACTL COMPLETION
set -euo pipefail

PATH="$(dirname "$1"):$PATH"
# shellcheck disable=SC1090
source "$2"

HOSTFILE=$(mktemp)
trap 'rm -f "$HOSTFILE"' EXIT
echo '192.0.2.1 cam.example' >"$HOSTFILE"
failures=0

# expect WORD WORDS...: completing the last of WORDS must offer WORD or, if WORD is "-", nothing.
expect() {
  local wanted=$1 word
  shift
  COMP_WORDS=(kovactl "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _kovactl
  if [[ $wanted == - && ${#COMPREPLY[@]} -eq 0 ]]; then
    return
  fi
  for word in "${COMPREPLY[@]}"; do
    [[ $word != "$wanted" ]] || return 0
  done
  echo "\"$*\" offers \"${COMPREPLY[*]}\", not \"$wanted\"" >&2
  failures=$((failures + 1))
}

expect stats st
expect listen ''
expect --json --j
expect --version --v
expect cpuInfo stats cpu
expect --watch stats --w
expect start --bus unix:path=/x service ''
expect passwd user p
expect - user passwd x
expect event-heatmap get event-h
expect --wait put logo --w
expect GetSystemStats call Get
expect wifi:= call GetSystemStats wi
# Words as bash splits them.
expect snapshot call GetRequest what = sn
expect eventHeatmap call GetRequest what =
expect - call GetRequest uri = ht
expect true call SaveToFlash sync := t
expect false call SaveToFlash sync : = f
expect kova_ctlserver call Reboot --to ''
expect start --host root@cam service st
expect stats -H root @ cam sta
expect stats -H cam : 22 sta
expect stats --host = cam sta
expect stats --host=cam sta
expect stats -H [fd00 :: 5] : 22 sta
expect start --timeout = 5 --bus unix : path = /x service st
expect --watch --host = root @ cam : 22 stats --w
expect cam.example -H cam.e
expect cam.example --host = cam.e
expect cam.example --host =
expect cam.example -H root @ cam.e
expect cam.example -H root @
expect root@cam.example -H root@cam.e
expect - -H root @ cam.example : 2
expect bridge br
expect kova_sounds_leds listen kova_s
expect - listen kova_sounds_leds ''
expect name= settings n
expect timezones tim
expect transfers tr
expect --watch transfers --w
expect --cancel put logo --c
expect metrics met
expect help he
expect list service l
expect - service list ''
expect firmware help "fi"
expect stop help service s
if kovactl timezones Paris >/dev/null 2>&1; then
  # As bash splits them.
  expect Europe/Paris settings timezone = Europe/P
  expect Europe/Paris settings timezone =
  expect - settings name = Europe/P
fi

exit $((failures > 0))
