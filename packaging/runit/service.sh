# shellcheck shell=sh
# Functions shared by the run scripts of the services, which runsv(8) starts in /etc/sv/NAME.

service=${PWD##*/}

# wait_for_socket PATH: polls every 20 ms for at most 5 s, then exits with an error; the supervisor tries again.
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
  # Do not inherit the supervisor's umask: the picture decoder reads downloaded files as nobody.
  umask 022
  wait_for_socket /dev/log
  logger -t "$service" -p local0.info "service started"
}
