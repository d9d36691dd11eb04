#!/usr/bin/env bash
# server_test.sh: tests the program behind "./dev server": its folder, the commands that it prints, and its shutdown.
# KOVA_BUILD is the folder of the programs.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
camera=$here/../camera caller=
# shellcheck source=camera/tests/harness.sh
. "$here/harness.sh"
dir="$work/the server"
server=

end() {
  [ -z "$server" ] || kill "$server" 2>/dev/null || true
  clean_up
}
trap end EXIT

# Restores the default action of SIGINT, which background processes of a shell ignore.
start_server() {
  : >"$work/told" # drop the output of the previous server
  env --default-signal=INT "$here/../server" "$dir" >"$work/told" 2>&1 &
  server=$!
  expect "the server starts" eventually grep -q ' reboot$' "$work/told"
}

stop_server() { # SIGNAL
  local status=0
  kill -s "$1" "$server"
  wait "$server" || status=$?
  server=
  expect "it exits with status 0 on SIG$1" test "$status" -eq 0
  expect "it reports its exit" grep -q "is off now" "$work/told"
  expect_not "its port is closed" curl --silent --insecure --max-time 5 "$url"
}

address() { grep -oE 'https://127\.0\.0\.1:[0-9]+' "$work/told" | sed -n 1p; }

refuses_other_folders() {
  mkdir "$work/full" && touch "$work/full/file"
  expect_not "a folder with other files is refused" "$here/../server" "$work/full"
  expect_not "the folder is unchanged" test -e "$work/full/tls"
  expect_not "a missing folder is refused" "$here/../server"
  expect_not "an option is refused" "$here/../server" --nonsense
  expect_not "a second folder is refused" "$here/../server" "$work/a" "$work/b"
}

requires_client_certificates() {
  expect_not "a client without a certificate is rejected" curl --silent --insecure --max-time 5 "$url/files/logo.png"
  expect "a client with the camera's certificate is accepted" curl --silent --fail --max-time 5 --insecure \
    --cert "$dir/tls/camera.pem" -o "$work/logo" "$url/files/logo.png"
  expect_not "a second server in the folder is refused" "$here/../server" "$dir"
}

# Runs the printed commands on a separate camera.
runs_printed_commands() {
  local line commands
  commands=$(sed -n 's/^    //p' "$work/told" | sed "s,/tmp/cam,$one,g; s,\./dev camera,$camera,")
  expect "twelve commands are printed" test "$(wc -l <<<"$commands")" -eq 12
  expect "all five transfers have --wait" test "$(grep -cE ' (put|get|firmware) .* --wait$' <<<"$commands")" -eq 5
  while read -r line; do
    expect "${line##*/}" bash -c "$line" </dev/null
    case $line in
      *"get snapshot"*) expect "the test picture has arrived" test -s "$dir/received/snapshot.jpg" ;;
      *"get support"*) expect "the archive has arrived" test -s "$dir/received/support.tar" ;;
      *" firmware "*) expect "the firmware is flashed" grep -q "version=9.9.9" -a "$one/flash/firmware.bin" ;;
      *" transfers") expect "the transfers are listed" grep -q "/upload/support.tar" "$work/output" ;;
      *" info") expect "the model is shown" grep -q "^Model " "$work/output" ;;
      *" reboot") expect "the camera comes back" "$camera" wait "$one" 2 ;;
    esac
  done <<<"$commands"
  expect "the logo is installed" cmp "$here/../samples/logo.png" "$one/root/etc/persistent/user_logo"
  expect "the new firmware runs" grep -qx 9.9.9 "$one/root/run/firmware_version"
  expect "requests are shown" grep -q "^POST /upload/snapshot.jpg 200" "$work/told"
  expect "the test picture can be decoded" decodes "$dir/received/snapshot.jpg"
  expect_not "the test picture changes with each boot" cmp "$dir/received/snapshot.jpg" "$one/root/tmp/snap.jpeg"
}

decodes() {
  local probe
  chmod 755 "$work" # the probe runs as nobody
  probe=$(find "$KOVA_BUILD" -maxdepth 4 -name kova_imageprobe -type f -print -quit)
  [ "$("$probe" "$1" | cat)" = "empty=0 channels=1 depth=0 width=640 height=360" ]
}

keeps_existing_files() {
  local before
  before=$(md5sum <"$dir/tls/ca.crt")
  echo mine >"$dir/files/chime.wav"
  start_server
  url=$(address)
  expect "a restart keeps the authority" test "$(md5sum <"$dir/tls/ca.crt")" = "$before"
  expect "a restart keeps the user's files" grep -qx mine "$dir/files/chime.wav"
  stop_server TERM
}

refuses_other_folders
start_server
url=$(address)
requires_client_certificates
runs_printed_commands
stop_server INT
keeps_existing_files
echo "$failures failed"
[ "$failures" -eq 0 ]
