#!/usr/bin/env bash
# server_test.sh: what "./dev server" runs: its folder, the commands that it prints, and its end. KOVA_BUILD is the
# folder of the programs.
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

# A background process of a shell ignores Ctrl-C, unless it is told otherwise.
start_server() {
  : >"$work/told" # of the one before
  env --default-signal=INT "$here/../server" "$dir" >"$work/told" 2>&1 &
  server=$!
  expect "the server starts" eventually grep -q ' reboot$' "$work/told"
}

stop_server() { # SIGNAL
  local status=0
  kill -s "$1" "$server"
  wait "$server" || status=$?
  server=
  expect "SIG$1 ends it with status 0" test "$status" -eq 0
  expect "it says so" grep -q "is off now" "$work/told"
  expect_not "nobody listens any more" curl --silent --insecure --max-time 5 "$url"
}

address() { grep -oE 'https://127\.0\.0\.1:[0-9]+' "$work/told" | sed -n 1p; }

refuses_other_folders() {
  mkdir "$work/full" && touch "$work/full/file"
  expect_not "a folder with other files is refused" "$here/../server" "$work/full"
  expect_not "nothing is made in it" test -e "$work/full/tls"
  expect_not "a missing folder is refused" "$here/../server"
  expect_not "an option is refused" "$here/../server" --nonsense
  expect_not "a second folder is refused" "$here/../server" "$work/a" "$work/b"
}

turns_strangers_away() {
  # 35 and 56: the handshake failed (curl(1))
  expect_not "a client without a certificate is turned away" curl --silent --insecure --max-time 5 "$url/files/logo.png"
  expect "a camera is not" curl --silent --fail --max-time 5 --insecure --cert "$dir/tls/camera.pem" -o "$work/logo" \
    "$url/files/logo.png"
  expect_not "a second server in the folder is refused" "$here/../server" "$dir"
}

# Runs what is printed, on a camera of its own.
obeys_what_is_printed() {
  local line commands
  commands=$(sed -n 's/^    //p' "$work/told" | sed "s,/tmp/cam,$one,g; s,\./dev camera,$camera,")
  expect "twelve commands are printed" test "$(wc -l <<<"$commands")" -eq 12
  expect "every transfer is waited for" test "$(grep -cE ' (put|get|firmware) .* --wait$' <<<"$commands")" -eq 5
  while read -r line; do
    expect "${line##*/}" bash -c "$line" </dev/null
    case $line in
      *"get snapshot"*) expect "the test picture has arrived" test -s "$dir/received/snapshot.jpg" ;;
      *"get support"*) expect "the archive has arrived" test -s "$dir/received/support.tar" ;;
      *" firmware "*) expect "the firmware is flashed" grep -q "version=9.9.9" -a "$one/flash/firmware.bin" ;;
      *" transfers") expect "the transfers are listed" grep -q "/upload/support.tar" "$work/output" ;;
      *" info") expect "the model is told" grep -q "^Model " "$work/output" ;;
      *" reboot") expect "the camera comes back" "$camera" wait "$one" 2 ;;
    esac
  done <<<"$commands"
  expect "the logo is installed" cmp "$here/../samples/logo.png" "$one/root/etc/persistent/user_logo"
  expect "the new firmware runs" grep -qx 9.9.9 "$one/root/run/firmware_version"
  expect "requests are shown" grep -q "^POST /upload/snapshot.jpg 200" "$work/told"
  expect "it was a picture" decodes "$dir/received/snapshot.jpg"
  expect_not "each boot has its own" cmp "$dir/received/snapshot.jpg" "$one/root/tmp/snap.jpeg"
}

decodes() {
  local probe
  chmod 755 "$work" # it reads as nobody
  probe=$(find "$KOVA_BUILD" -maxdepth 4 -name kova_imageprobe -type f -print -quit)
  [ "$("$probe" "$1" | cat)" = "empty=0 channels=1 depth=0 width=640 height=360" ]
}

keeps_what_it_has() {
  local before
  before=$(md5sum <"$dir/tls/ca.crt")
  echo mine >"$dir/files/chime.wav"
  start_server
  url=$(address)
  expect "its authority stays" test "$(md5sum <"$dir/tls/ca.crt")" = "$before"
  expect "so does a person's file" grep -qx mine "$dir/files/chime.wav"
  stop_server TERM
}

refuses_other_folders
start_server
url=$(address)
turns_strangers_away
obeys_what_is_printed
stop_server INT
keeps_what_it_has
echo "$failures failed"
[ "$failures" -eq 0 ]
