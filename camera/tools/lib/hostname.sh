# The camera's name as its host name: letters, digits and "-" only, at most 63 (RFC 1123).

host_name_of_camera() {
  sed -n 's/^resolv\.host\.1\.name=//p' /etc/system.cfg 2>/dev/null | tail -n 1 |
    LC_ALL=C tr -cs 'A-Za-z0-9\n' '-' | sed -e 's/^-*//' -e 's/^\(.\{1,63\}\).*/\1/' -e 's/-*$//'
}

# If the camera shares the host name of its machine (see /run/private_hostname), only
# /etc/hostname changes.
apply_camera_name() {
  name=$(host_name_of_camera)
  name=${name:-camera}
  # Not in /etc, where a concurrent copy would see a file that disappears.
  echo "$name" >"/run/hostname.$$"
  mv -T "/run/hostname.$$" /etc/hostname
  if [ -e /run/private_hostname ]; then hostname "$name"; fi
}
