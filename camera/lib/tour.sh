# shellcheck shell=bash disable=SC2154 # `here` is the tour's
# Building blocks of the tour: commands, checks and the management server.

# shellcheck source=camera/lib/manager.sh
. "$(dirname "${BASH_SOURCE[0]}")/manager.sh"

readonly WAIT_S=30

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
  "$here/camera" stop "$dir" >/dev/null 2>&1 || true       # there may be no camera
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

inside() { "$here/camera" exec "$dir" -- "$@"; }

# --- commands ------------------------------------------------------------------------------------------------------

# run_shown EXPECTED COMMAND...: runs it, shows its output and sets `output`. EXPECTED is ok, refused, or any for a
# command that a reboot may kill.
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
  show "$ ./dev $*"
  run_shown ok "$here/$1" "${@:2}"
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
  local deadline=$((SECONDS + WAIT_S))
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
inside_has() { grep -qE "$2" "$root$1"; }
inside_lacks() { ! grep -qE "$2" "$root$1"; }
same() { cmp -s "$1" "$2"; }
# The server renames an upload when it is complete.
arrives() { eventually test -e "$received/$1" && cmp -s "$received/$1" "$2"; }
tar_lists() { tar -tf "$1" | has "$2"; }
# Whether no such request reached the server within the duration of a transfer.
never_requested() { sleep 0.5 && ! grep -qF "$1" "$work/manager.log"; }
account_hash() { cut -d: -f2 "$root/etc/passwd"; }
sysid() { sed -nE 's/.*"sysid": *([0-9]+).*/\1/p' "$root/usr/share/kova/camera_info.json"; }

log_size() { stat -c %s "$root/var/log/messages" 2>/dev/null || echo 0; }
# Whether the system log has a matching line since the start of the step.
logged_since() { tail -c "+$((log_mark + 1))" "$root/var/log/messages" | has "$1"; }
logged() { eventually logged_since "$1"; }
logged_now() { logged "$1"; }

# Waits for the next boot number: the current one stays in place while the camera goes down.
comes_back() { "$here/camera" wait "$dir" "$((boot + 1))" && boot=$((boot + 1)); }
boot=1

# --- the management server ----------------------------------------------------------------------------------------

start_manager() {
  local tls=$work/tls
  make_certificates "$tls" 2
  run_manager "$tls" "$served" "$received" "$work/port" >"$work/manager.log" 2>&1 &
  manager=$!
  eventually test -s "$work/port"
  url=https://127.0.0.1:$(<"$work/port")
  install -m 600 "$tls/camera.pem" "$root/etc/persistent/server.pem"
  install -m 644 "$tls/ca.crt" "$root/etc/persistent/controller.crt"
  inside kovactl save --sync
}

turned_away() { ! curl --silent --insecure --max-time 5 "$url/files/nothing"; }
