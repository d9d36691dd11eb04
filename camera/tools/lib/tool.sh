# What every device tool begins with: its line in /var/log/tools.log, and its misbehaviour, if a test asked for one.
#
# A tool called NAME misbehaves when the folder /run/tools/NAME exists (DIR/root/run/tools/NAME from outside; it is
# gone after a reboot). Each file in it is one order, carried out in this sequence:
#   times   misbehave in this many runs only, then behave again
#   sleep   wait this many seconds (fractions allowed)
#   stdout  print the file's content on standard output
#   stderr  print the file's content on standard error
#   kill    die by this signal, by name or number
#   exit    end with this exit status, the work undone
# Without "kill" and "exit" the tool then does its work as usual.

set -eu
umask 022
tool_name=${0##*/}

# One write to a file opened for appending: lines of tools that run at once do not mix.
log_run() {
  line="$0${*:+ $*}"
  printf '%s\n' "$(printf '%s' "$line" | tr '\n' '?')" >>/var/log/tools.log
}

# The wait does not hold the tool's output open, so that killing the tool ends it for whoever reads.
misbehave() {
  orders=/run/tools/$tool_name
  [ -d "$orders" ] || return 0
  if [ -e "$orders/times" ]; then
    left=$(cat "$orders/times")
    [ "$left" -gt 0 ] || return 0
    echo $((left - 1)) >"$orders/times"
  fi
  if [ -e "$orders/sleep" ]; then sleep "$(cat "$orders/sleep")" </dev/null >/dev/null 2>&1; fi
  if [ -e "$orders/stdout" ]; then cat "$orders/stdout"; fi
  if [ -e "$orders/stderr" ]; then cat "$orders/stderr" >&2; fi
  if [ -e "$orders/kill" ]; then kill -s "$(cat "$orders/kill")" $$; fi
  if [ -e "$orders/exit" ]; then exit "$(cat "$orders/exit")"; fi
}

fail() {
  echo "$tool_name: $*" >&2
  exit 1
}

# replace_file TARGET: TARGET becomes standard input, wholly or not at all.
replace_file() {
  cat >"$1.new"
  sync "$1.new"
  mv -T "$1.new" "$1"
}

log_run "$@"
misbehave
