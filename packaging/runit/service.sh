# shellcheck shell=sh
# What the run scripts of the services share. runsv(8) starts them in /etc/sv/NAME.

service=${PWD##*/}

# Polls, since a run script has nothing better: 20 ms at a time, at most 5 s. Then the service fails, and its supervisor
# tries again.
wait_for_socket() {
  tries=250
  until [ -S "$1" ]; do
    tries=$((tries - 1))
    if [ "$tries" -eq 0 ]; then
      logger -t "$service" -p local0.err "no $1"
      exit 1
    fi
    sleep 0.02
  done
}

begin() {
  # Whoever started the supervisor may have had another; the picture decoder reads what was downloaded as nobody.
  umask 022
  wait_for_socket /dev/log
  logger -t "$service" -p local0.info "service started"
}
