# shellcheck shell=bash
# The management server and its certificates, for the tour and for "./dev server".

# make_certificates FOLDER DAYS: creates an authority and certificates for the server and the camera.
make_certificates() {
  mkdir -m 700 "$1"
  (
    cd "$1" || exit
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days "$2" -subj "/CN=Tour Authority" \
      -keyout ca.key -out ca.crt
    issue manager serverAuth "$2"
    issue camera clientAuth "$2"
    cat camera.crt camera.key >camera.pem
  ) >"$1/openssl.log" 2>&1
}

issue() {
  openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" -keyout "$1.key" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA ca.crt -CAkey ca.key -CAcreateserial -days "$3" -out "$1.crt" \
    -extfile <(echo "extendedKeyUsage=$2")
}

# run_manager CERTIFICATES FILES RECEIVED PORT_FILE: replaces this shell, so call it in the background.
run_manager() {
  local command
  command=("$(find "${KOVA_HOST_BUILD:-$KOVA_BUILD}" -maxdepth 4 -name kova_manager -type f -print -quit)")
  if [ -n "${KOVA_CAMERA_EMULATOR:-}" ]; then
    command=("$KOVA_CAMERA_EMULATOR" -L "$KOVA_CAMERA_SYSROOT" "${command[@]}")
  fi
  exec "${command[@]}" "$1/manager.crt" "$1/manager.key" "$1/ca.crt" "$2" "$3" "$4"
}
