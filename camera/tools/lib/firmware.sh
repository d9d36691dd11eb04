# Firmware images: a header of 512 bytes of text, then the payload.
#   KOVAFW01
#   board=<sysid of the model it is for, decimal>
#   version=<letters, digits, ".", "_", "-">
#   size=<bytes of payload>
#   sha256=<digest of the payload>
# The rest of the header is line breaks.

header_size=512

# Images are untrusted: only text of a valid header is used.
read_header() { head -c "$header_size" "$1" | tr -cd 'A-Za-z0-9._=\n-'; }

header_value() { printf '%s\n' "$header" | sed -n "s/^$1=//p" | head -n 1; }

own_board() {
  sed -nE 's/.*"sysid"[[:space:]]*:[[:space:]]*([0-9]+).*/\1/p' /usr/share/kova/camera_info.json | head -n 1
}

# check_image FILE: fills `version`; on a bad image fills `reason` and `detail` and fails.
check_image() {
  reason=FW_CHECK_FAILED
  [ -f "$1" ] || { detail="no image" && return 1; }
  header=$(read_header "$1")
  version=$(header_value version)
  [ "$(printf '%s\n' "$header" | head -n 1)" = KOVAFW01 ] || { detail="not a firmware image" && return 1; }
  [ -n "$version" ] || { detail="no version" && return 1; }
  [ "$(($(stat -c %s "$1") - header_size))" = "$(header_value size)" ] || { detail="wrong size" && return 1; }
  digest=$(tail -c "+$((header_size + 1))" "$1" | sha256sum)
  [ "${digest%% *}" = "$(header_value sha256)" ] || { detail="wrong digest" && return 1; }
  if [ "$(header_value board)" != "$(own_board)" ]; then
    reason=FW_CHECK_INCOMPAT_HW
    detail="made for another model"
    return 1
  fi
}
