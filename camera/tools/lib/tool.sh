# The start of every device tool: logs the run in /var/log/tools.log and injects failures requested by a test.
#
# A tool NAME is affected if the folder /run/tools/NAME exists (DIR/root/run/tools/NAME from outside; it is
# gone after a reboot). Its files are processed in this order:
#   times   affect only this number of runs
#   sleep   wait this many seconds (fractions allowed)
#   stdout  print the file's content on standard output
#   stderr  print the file's content on standard error
#   linger  leave a child that holds the output open for this many seconds
#   flood   print the file's content endlessly
#   kill    die of this signal, a name or number
#   exit    exit with this status and do nothing else
# Without "kill" and "exit" the tool then does its work.

set -eu
umask 022
tool_name=${0##*/}

# A single write in append mode, so that lines of concurrent tools do not mix.
log_run() {
  line="$0${*:+ $*}"
  printf '%s\n' "$(printf '%s' "$line" | tr '\n' '?')" >>/var/log/tools.log
}

# sleep(1) does not inherit the output, so killing the tool also closes its output.
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
  if [ -e "$orders/linger" ]; then sleep "$(cat "$orders/linger")" & fi
  if [ -e "$orders/flood" ]; then while cat "$orders/flood"; do :; done; fi
  if [ -e "$orders/kill" ]; then kill -s "$(cat "$orders/kill")" $$; fi
  if [ -e "$orders/exit" ]; then exit "$(cat "$orders/exit")"; fi
}

fail() {
  echo "$tool_name: $*" >&2
  exit 1
}

# replace_file TARGET: replaces TARGET by standard input, atomically and durably.
replace_file() {
  cat >"$1.new"
  sync "$1.new"
  mv -T "$1.new" "$1"
  sync "${1%/*}"
}

log_run "$@"
misbehave
