# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared with the tour
# Building blocks of the tour: commands, checks and the management server.

# shellcheck source=camera/lib/manager.sh
. "$(dirname "${BASH_SOURCE[0]}")/manager.sh"

# The device is a virtual camera, or the emulated machine.
device=camera
is_machine() { [ "$device" = machine ]; }

use_device() {
  device=$1
  if is_machine; then
    export KOVA_HOST_BUILD=${KOVA_HOST_BUILD:-$here/../build/release}
    export KOVA_BUILD=${KOVA_BUILD:-$here/../build/arm64} KOVA_TIME_FACTOR=${KOVA_TIME_FACTOR:-5}
    driver=$here/../machine/machine host_address=10.0.2.2 factory_name="Kova Virtual Machine"
  else
    export KOVA_BUILD=${KOVA_BUILD:-$here/../build/release}
    driver=$here/camera host_address=127.0.0.1 factory_name="Kova Virtual Camera"
  fi
}

prepare() {
  work=$(mktemp -d /tmp/kova-tour-XXXXXX)
  dir=$work/cam root=$work/cam/root served=$work/served received=$work/received
  steps=0 good=0 manager=
  mkdir -p "$served" "$received"
  bold='' green='' red='' plain=''
  if [ -t 1 ]; then
    bold=$'\033[1m' green=$'\033[32m' red=$'\033[31m' plain=$'\033[0m'
  fi
  trap clean_up EXIT
  trap 'exit 130' INT TERM
  started=$SECONDS
}

clean_up() {
  [ -z "$manager" ] || kill "$manager" 2>/dev/null || true # it may have exited already
  "$driver" stop "$dir" >/dev/null 2>&1 || true            # there may be no camera
  rm -rf "$work"
}

# step TITLE FUNCTION: runs a step, which succeeds if all its checks do. The tour continues in any case.
step() {
  steps=$((steps + 1))
  behaved=yes
  printf '\n%s%2d. %s%s\n' "$bold" "$steps" "$1" "$plain"
  output=
  log_mark=$(log_size)
  "$2" || wrong "the step was aborted"
  if [ "$behaved" = yes ]; then good=$((good + 1)); fi
}

summary() {
  printf '\n%s%d of %d steps behaved, in %d s.%s\n' "$bold" "$good" "$steps" $((SECONDS - started)) "$plain"
  [ "$good" -eq "$steps" ]
}

show() { printf '    %s\n' "$@"; }

inside() { "$driver" exec "$dir" -- "$@"; }

# on_host PATH: prints the path on this computer of the device's file PATH, or of a copy if the device is a machine.
on_host() {
  if is_machine; then
    inside cat "$1" </dev/null >"$work/copy" 2>/dev/null || rm -f "$work/copy"
    echo "$work/copy"
  else
    echo "$root$1"
  fi
}

# onto_device FILE PATH [MODE]: copies it to the device.
onto_device() {
  if is_machine; then
    # shellcheck disable=SC2016 # expanded inside
    inside sh -c 'cat >"$1" && chmod "$2" "$1"' sh "$2" "${3:-644}" <"$1"
  else
    install -m "${3:-644}" "$1" "$root$2"
  fi
}


# --- commands ------------------------------------------------------------------------------------------------------

# run_shown EXPECTED COMMAND...: runs it, shows its output and sets `output`. EXPECTED is "ok", "refused", or "any" for
# commands that a reboot may kill.
run_shown() {
  local expected=$1 status=0
  shift
  output=$("$@" 2>&1) || status=$?
  if [ -n "$output" ]; then printf '    %s\n' "${output//$'\n'/$'\n'    }"; fi
  if [ "$expected" = ok ]; then
    [ "$status" -eq 0 ] || wrong "expected success, got exit status $status"
  elif [ "$expected" = refused ]; then
    [ "$status" -ne 0 ] || wrong "expected a refusal"
  fi
}

type_host() {
  show "$ ./dev $device $*"
  run_shown ok "$driver" "$@"
}
type_in() {
  show "$ kovactl $*"
  run_shown ok inside kovactl "$@"
}
type_last() {
  show "$ kovactl $*"
  run_shown any inside kovactl "$@"
}
type_refused() {
  show "$ kovactl $*"
  run_shown refused inside kovactl "$@"
}
# type_secret OLD NEW ARGUMENT...: passes the passwords on standard input, one per line.
type_secret() {
  show "$ printf '%s\\n' OLD NEW | kovactl ${*:3}"
  run_shown ok inside kovactl "${@:3}" <<<"$1"$'\n'"$2"
}
type_secret_refused() {
  show "$ printf '%s\\n' OLD NEW | kovactl ${*:3}"
  run_shown refused inside kovactl "${@:3}" <<<"$1"$'\n'"$2"
}

# --- checks -------------------------------------------------------------------------------------------------------

wrong() {
  behaved=no
  printf '    %sx %s%s\n' "$red" "$*" "$plain"
}

# holds TEXT COMMAND...: checks that the command succeeds.
holds() {
  if "${@:2}" >/dev/null 2>&1; then
    printf '    %sok%s %s\n' "$green" "$plain" "$1"
  else
    wrong "$1"
  fi
}

eventually() {
  local deadline=$((SECONDS + 30 * ${KOVA_TIME_FACTOR:-1}))
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.05
  done
}

# has PATTERN: whether a line of standard input matches. Reads to the end, unlike "grep -q", which makes the writer of
# the pipe and thus the check fail.
has() { grep -E -- "$1" >/dev/null; }

true_so_far() { [ "$behaved" = yes ]; }
printed() { tr '\n' ' ' <<<"$output" | has "$1"; }
busctl_knows() { inside busctl --address=unix:path=/run/kova/bus --no-pager list | has "^$1 "; }
inside_prints() { [ "$(inside sh -c "$1")" = "$2" ]; }
inside_has() { grep -qE "$2" "$(on_host "$1")"; }
inside_lacks() {
  local file
  file=$(on_host "$1")
  [ -e "$file" ] && ! grep -qE "$2" "$file"
}
lacks_file() { inside test ! -e "$1"; }
# has_copy FILE PATH: whether the device's file PATH equals FILE.
has_copy() { cmp -s "$1" "$(on_host "$2")"; }
# The server renames an upload when it is complete.
arrives() { eventually test -e "$received/$1" && has_copy "$received/$1" "$2"; }
tar_lists() { tar -tf "$1" | has "$2"; }
# Whether no such request reached the server within the duration of a transfer.
never_requested() { sleep 0.5 && ! grep -qF "$1" "$work/manager.log"; }
account_hash() { cut -d: -f2 "$(on_host /etc/passwd)"; }
sysid() { sed -nE 's/.*"sysid": *([0-9]+).*/\1/p' "$(on_host /usr/share/kova/camera_info.json)"; }

log_size() { stat -c %s "$(on_host /var/log/messages)" 2>/dev/null || echo 0; }
# Whether the system log has a matching line since the start of the step.
logged_since() { tail -c "+$((log_mark + 1))" "$(on_host /var/log/messages)" | has "$1"; }

press_button() {
  if is_machine; then
    show "$ ./dev machine press $dir"
    "$driver" press "$dir"
  else
    show "$ printf 0 1<>.../reset_button/value   # pressed for six seconds"
    printf 0 1<>"$root/run/gpio/reset_button/value"
  fi
}
release_button() { if is_machine; then "$driver" release "$dir"; else printf 1 1<>"$root/run/gpio/reset_button/value"; fi; }
logged() { eventually logged_since "$1"; }
logged_now() { logged "$1"; }

# Waits for the next boot number: the current one stays in place while the camera goes down.
comes_back() { "$driver" wait "$dir" "$((boot + 1))" && boot=$((boot + 1)); }
boot=1

# --- the management server ----------------------------------------------------------------------------------------

start_manager() {
  local tls=$work/tls
  make_certificates "$tls" 2
  run_manager "$tls" "$served" "$received" "$work/port" >"$work/manager.log" 2>&1 &
  manager=$!
  eventually test -s "$work/port"
  url=https://$host_address:$(<"$work/port")
  if is_machine; then inside date -s "@$(date +%s)"; fi # its clock may be behind, before the certificates are valid
  onto_device "$tls/camera.pem" /etc/persistent/server.pem 600
  onto_device "$tls/ca.crt" /etc/persistent/controller.crt
  inside kovactl save --sync
}

turned_away() { ! curl --silent --insecure --max-time 5 "https://127.0.0.1:${url##*:}/files/nothing"; }
