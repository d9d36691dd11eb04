# shellcheck shell=bash
# The Debian packages that this project needs, by what needs them.

# kova_packages GROUP...: prints them, one a line.
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
      configure) # what CMake demands besides, also where no test is compiled
        printf '%s\n' libgtest-dev libgmock-dev
        ;;
      tests)
        # The libraries of sshd that others may not need: it is not installed itself, see ./dev.
        printf '%s\n' libgtest-dev libgmock-dev openssl curl strace python3 python3-dbus fish openssh-client gpg \
          gpg-agent libpam0g libwrap0
        ;;
      arm64)
        # The emulator is not installed, since it would be registered with the kernel: see ./dev.
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
      fuzz)
        printf '%s\n' clang-14 libclang-rt-14-dev
        ;;
      lint)
        printf '%s\n' clang-format-14 clang-format clang-tidy-14 clang-tidy shellcheck
        ;;
      bench)
        # The libraries of nginx: it is not installed itself, see ./dev.
        printf '%s\n' rauc systemd curl iproute2 strace openssl util-linux libcrypt1 libpcre2-8-0 libssl3 zlib1g
        ;;
      package)
        printf '%s\n' binutils bubblewrap debhelper debian-archive-keyring dpkg-dev file lintian mandoc mmdebstrap \
          util-linux
        ;;
      *)
        echo "no package group \"$group\"" >&2
        return 1
        ;;
    esac
  done | sort -u
}
