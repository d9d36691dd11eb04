# The camera's name as its host name: letters, digits and "-" only, at most 63 (RFC 1123).

host_name_of_camera() {
  sed -n 's/^resolv\.host\.1\.name=//p' /etc/system.cfg 2>/dev/null | tail -n 1 |
    LC_ALL=C tr -cs 'A-Za-z0-9\n' '-' | sed -e 's/^-*//' -e 's/^\(.\{1,63\}\).*/\1/' -e 's/-*$//'
}

# Where the camera shares its host name with the machine that it runs on (see /run/private_hostname), only
# /etc/hostname changes.
apply_camera_name() {
  name=$(host_name_of_camera)
  name=${name:-camera}
  # Not in /etc: whoever copies that at this moment must not find a file that is gone the next.
  echo "$name" >"/run/hostname.$$"
  mv -T "/run/hostname.$$" /etc/hostname
  if [ -e /run/private_hostname ]; then hostname "$name"; fi
}
