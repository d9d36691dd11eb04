#!/usr/bin/env bash
# Runs the commands in the documentation verbatim on a virtual camera.
#
# Only the camera's folder and the bus address are substituted, and servers by a port where nobody listens.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

readonly SKIPPED=77 # exit status of a test that cannot run here
readonly PATIENCE_S=30
readonly WATCHED_S=3 INTERRUPTED=124

[ "$(id -u)" -eq 0 ] || { echo "skipped: a process of the host may use a camera's bus only as root" && exit "$SKIPPED"; }

work=$(mktemp -d)
readonly work
readonly dir=$work/cam camera=$PWD/camera/camera
failures=0
count=0

clean_up() {
  [ ! -e "$dir/state" ] || "$camera" stop "$dir" >/dev/null || true
  rm -rf "$work"
}
trap clean_up EXIT

verdict() { # TEXT SUCCEEDED
  count=$((count + 1))
  if "$2"; then printf 'ok    %s\n' "$1" && return; fi
  printf 'FAIL  %s\n' "$1"
  sed 's/^/      | /' "$work/output"
  failures=$((failures + 1))
}

# runs TEXT COMMAND...: expects that the command succeeds.
runs() {
  local text=$1 good=true
  shift
  timeout "$PATIENCE_S" "$@" </dev/null >"$work/output" 2>&1 || good=false
  verdict "$text" "$good"
}

# goes_on TEXT COMMAND...: expects that the command runs until interrupted.
goes_on() {
  local text=$1 good=true status=0
  shift
  timeout --signal=INT "$WATCHED_S" "$@" </dev/null >"$work/output" 2>&1 || status=$?
  [ "$status" -eq "$INTERRUPTED" ] || good=false
  verdict "$text" "$good"
}

# transfer_fails TEXT COMMAND...: expects that the transfer fails, because nobody listens.
transfer_fails() {
  local text=$1 good=true
  shift
  timeout "$PATIENCE_S" "$@" </dev/null >"$work/output" 2>&1 && good=false
  grep -q TRANSFER_FAILED "$work/output" || good=false
  verdict "$text" "$good"
}

# blocks FILE [LANGUAGE]: prints the lines of its code blocks; joins lines continued by a backslash.
blocks() {
  awk -v fence="\`\`\`${2:-}" '
    /^```/ { open = !open; wanted = open && $0 == fence; next }
    wanted' "$1" |
    sed -e ':a' -e '/\\$/N; s/\\\n */ /; ta'
}

manual_examples() {
  sed -n '/^\.SH EXAMPLES/,/^\.SH SEE/p' docs/man/kovactl.1 | grep '^kovactl ' | sed 's/\\-/-/g'
}

try_line() { # LINE
  local line=$1
  line=${line//.\/dev camera/$camera}
  line=${line//\/tmp\/cam/$dir}
  line=${line//unix:path=\/run\/kova\/bus/unix:path=$dir/root/run/kova/bus}
  line=${line//:\/\/server\//:\/\/127.0.0.1:1/}
  line=${line//:\/\/10.0.0.2\//:\/\/127.0.0.1:1/}
  local words=(bash -c "$line")
  [[ $line != kovactl* ]] || words=("$camera" exec "$dir" -- sh -c "cd /tmp && $line")
  case $1 in
    kovactl\ * | busctl\ * | ./dev\ camera\ *) ;;
    *) echo "unknown command: $1" >"$work/output" && verdict "$1" false && return ;;
  esac
  case $1 in
    *--watch* | *"kovactl listen "*) goes_on "$1" "${words[@]}" ;;
    *--wait) transfer_fails "$1" "${words[@]}" ;;
    *) runs "$1" "${words[@]}" ;;
  esac
}

# all_of SOURCE: tries each line of standard input; no lines count as a fault.
all_of() {
  local line before=$count
  while IFS= read -r line; do
    [ -z "$line" ] || try_line "$line"
  done
  [ "$count" -gt "$before" ] || { echo "FAIL  $1 shows no command" && failures=$((failures + 1)); }
}

readme=$(blocks README.md | grep '^\./dev camera ')
all_of README.md <<<"$(grep -v '^./dev camera stop ' <<<"$readme")"
cp camera/samples/logo.png "$dir/root/tmp"
cp "$dir/root/tmp/snap.jpeg" "$dir/root/tmp/motionsnap_12.jpg"
all_of "the manual page" <<<"$(manual_examples)"
all_of docs/bus.md <<<"$(blocks docs/bus.md)"
blocks docs/bus.md python | sed "s|/run/kova/bus|$dir/root/run/kova/bus|" >"$work/example.py"
runs "docs/bus.md, in Python" /usr/bin/python3 "$work/example.py"
cat "$work/output"
all_of README.md <<<"$(grep '^./dev camera stop ' <<<"$readme")"

echo "$count commands, $failures faults"
[ "$failures" -eq 0 ]
