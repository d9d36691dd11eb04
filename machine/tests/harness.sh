# shellcheck shell=bash disable=SC2034,SC2154 # shared with the tests
# Helpers of the machine's tests, in addition to those of the camera's tests: the machine under test is in `one`. The
# caller sets `here`. The machine never outlives the test, even if the test is killed.

# Emulation on a busy computer is slow.
export KOVA_TIME_FACTOR=${KOVA_TIME_FACTOR:-5}
machine=$here/../machine
# shellcheck source=camera/tests/harness.sh
. "$here/../../camera/tests/harness.sh"

run_machine() { "$machine" "$@"; }
start_machine() { run_machine start "$one" --owner $$ "$@"; }
inside() { run_machine exec "$one" -- "$@" </dev/null; }
put_inside() { run_machine exec "$one" -- sh -c "cat >'$2' && chmod 755 '$2'" <"$1"; }
printed_inside() { [ "$(inside sh -c "$1")" = "$2" ]; }
boot_count() { inside cat /run/boot_count; }
logged() { inside grep -q -- "$1" /var/log/messages; }
figure() { printf 'figure %-40s %s\n' "$1" "$2"; }

make_image() { "$here/../mkimage" "${KOVA_MACHINE_IMAGE:-$here/../../build/machine/image}"; }
qemu_process() { sed -n 's/.*process //p' "$one/state/supervisor.log" | tail -n 1; }

clean_up() {
  trap '' INT TERM HUP
  [ ! -e "$one/state" ] || run_machine cut "$one" >/dev/null 2>&1 || true
  rm -rf "$work"
}

# run_parts PART...: runs the parts, and exits with status 1 if an expectation failed.
run_parts() {
  local part
  for part in "$@"; do "$part"; done
  figure "the whole test" "$SECONDS s, at load $(cut -d ' ' -f 1-3 /proc/loadavg)"
  [ "$failures" -eq 0 ] || { echo "$failures expectations failed" && exit 1; }
}

# Makes an authority and certificates for a server and the camera.
make_certificates() {
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=Authority" \
    -keyout "$work/ca.key" -out "$work/ca.crt"
  local name
  for name in server camera; do
    openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$name" \
      -keyout "$work/$name.key" -out "$work/$name.csr"
    openssl x509 -req -in "$work/$name.csr" -CA "$work/ca.crt" -CAkey "$work/ca.key" -CAcreateserial -days 2 \
      -out "$work/$name.crt"
  done
  cat "$work/camera.crt" "$work/camera.key" >"$work/camera.pem"
}

# serve SCHEME [CERTIFICATE KEY]: serves the folder $work/served to the camera, at $url, until stop_server.
serve() {
  mkfifo "$work/serving"
  "$here/serve" "$work/served" "${2:-}" "${3:-}" "$work/port" <"$work/serving" 2>/dev/null &
  exec 6>"$work/serving"
  eventually test -s "$work/port"
  url=$1://10.0.2.2:$(<"$work/port")
}

# start_server: serves $work/served over HTTPS, and makes the camera trust the server.
start_server() {
  make_certificates >"$work/openssl.log" 2>&1
  serve https "$work/server.crt" "$work/server.key"
  put_inside "$work/camera.pem" /etc/persistent/server.pem
  put_inside "$work/ca.crt" /etc/persistent/controller.crt
  inside chmod 600 /etc/persistent/server.pem
  inside date -s "@$(date +%s)" >/dev/null # a slow machine's clock may be behind, before the certificates are valid
}
stop_server() { exec 6>&-; }
put_logo() { inside kovactl put logo "$1" --file /tmp/logo.local --timeout 60 --wait; }

trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
command -v qemu-system-aarch64 >/dev/null || skip "QEMU is not installed"
