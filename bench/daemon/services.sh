# shellcheck shell=bash
# Starts and stops the measured services. Sourced by measure.
#
#   start SERVICE    starts it and waits until it owns its name; pid[SERVICE] is its process
#   stop SERVICE     stops it
#   why[SERVICE]     the reason why it cannot run; unset if it can
#
# The caller sets KOVA_BUILD, LOGS and the bus addresses.

declare -A name=(
  [ours]=kova.kova_ctlserver
  [rauc]=de.pengutronix.rauc
  [timedated]=org.freedesktop.timedate1
  [bare]=bench.Bare
)
declare -A command=(
  [ours]="$KOVA_BUILD/kova_ctlserver/kova_ctlserver"
  [rauc]="rauc --conf=$HERE/rauc.conf service"
  [timedated]=/lib/systemd/systemd-timedated
  [bare]="$KOVA_BUILD/bench/daemon/bench_bare_service ${name[bare]}"
)
declare -A label=([rauc]="rauc service" [timedated]="systemd-timedated" [bare]="bare service")
declare -A pid=() why=()

readonly PATIENCE_TICKS=100 # of 50 ms

is_owned() {
  busctl --address="$KOVA_BUS_ADDRESS" call org.freedesktop.DBus / org.freedesktop.DBus \
    NameHasOwner s "$1" 2>/dev/null | grep true >/dev/null
}

start() {
  local service=$1 tick words
  [[ -z ${why[$service]:-} ]] || return 1
  read -ra words <<<"${command[$service]}"
  if ! command -v "${words[0]}" >/dev/null; then
    why[$service]="${words[0]} is missing"
    return 1
  fi
  "${words[@]}" >>"$LOGS/$service" 2>&1 &
  pid[$service]=$!
  for ((tick = 0; tick < PATIENCE_TICKS; ++tick)); do
    if is_owned "${name[$service]}"; then
      return 0
    fi
    kill -0 "${pid[$service]}" 2>/dev/null || break
    sleep 0.05
  done
  why[$service]="no ${name[$service]}: $(tail -n 1 "$LOGS/$service" | cut -c1-80)"
  stop "$service"
  return 1
}

stop() {
  local process=${pid[$1]:-}
  [[ -n $process ]] || return 0
  unset "pid[$1]"
  kill "$process" 2>/dev/null || true # it may have exited by itself
  wait "$process" 2>/dev/null || true # whatever its exit status
}
