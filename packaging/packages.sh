# shellcheck shell=bash
# The Debian packages that this project needs, in groups by purpose.

# kova_packages GROUP...: prints the packages of the groups, one per line.
kova_packages() {
  local group
  for group in "$@"; do
    case $group in
      build)
        printf '%s\n' ca-certificates git cmake ninja-build g++ pkg-config ccache \
          libsystemd-dev libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libcli11-dev libcrypt-dev \
          libnl-3-dev libnl-genl-3-dev libcpp-httplib-dev libseccomp-dev libopencv-imgcodecs-dev
        ;;
      camera)
        printf '%s\n' busybox bubblewrap dbus-daemon runit systemd openssl curl tzdata util-linux
        ;;
      configure) # what CMake also requires, even if no tests are compiled
        printf '%s\n' libgtest-dev libgmock-dev
        ;;
      tests)
        # Includes libraries of sshd, which ./dev unpacks instead of installing it.
        printf '%s\n' libgtest-dev libgmock-dev openssl curl strace python3 python3-dbus fish openssh-client gpg \
          gpg-agent libpam0g libwrap0
        ;;
      arm64)
        # ./dev unpacks the emulator: its installation would register it with the kernel.
        printf '%s\n' g++-aarch64-linux-gnu
        ;;
      machine)
        printf '%s\n' binutils busybox cpio e2fsprogs fakeroot fdisk kmod openssl python3 qemu-system-arm rauc \
          squashfs-tools u-boot-qemu util-linux
        ;;
      machine-firmware) # for 64-bit ARM, unpacked into the machine's firmware
        printf '%s\n' linux-image-arm64 busybox dbus-daemon hostapd iw libcrypt1 libcurl4 libgcc-s1 \
          libnl-genl-3-200 libopencv-imgcodecs406 libseccomp2 libssl3 libsystemd0 libubootenv-tool rauc runit \
          squashfs-tools strace systemd tzdata util-linux wpasupplicant
        ;;
      asan)
        printf '%s\n' clang-14 libclang-rt-14-dev lld-14
        ;;
      lint)
        printf '%s\n' clang-format-14 clang-format clang-tidy-14 clang-tidy shellcheck
        ;;
      bench)
        # Includes libraries of nginx, which ./dev unpacks instead of installing it.
        printf '%s\n' rauc systemd curl iproute2 strace openssl util-linux libcrypt1 libpcre2-8-0 libssl3 zlib1g
        ;;
      package)
        printf '%s\n' binutils bubblewrap build-essential debhelper debian-archive-keyring dpkg-dev file lintian mandoc \
          mmdebstrap util-linux
        ;;
      *)
        echo "no package group \"$group\"" >&2
        return 1
        ;;
    esac
  done | sort -u
}
