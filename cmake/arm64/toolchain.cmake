# Cross-compiles for 64-bit ARM with Debian's compiler and the sysroot of cmake/arm64/sysroot. Set KOVA_SYSROOT to use
# another sysroot, CMAKE_CXX_COMPILER to use another compiler. Not needed with an SDK that has its own toolchain file.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()

set(KOVA_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/arm64-sysroot"
    CACHE PATH "Libraries and headers of the board")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KOVA_SYSROOT)
file(REAL_PATH "${KOVA_SYSROOT}" CMAKE_SYSROOT)
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/include")
  message(FATAL_ERROR "No sysroot in ${CMAKE_SYSROOT}: \"./dev build arm64\" makes it, or KOVA_SYSROOT names another")
endif()

# Find programs on this machine, everything else in the sysroot.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(pkgconfig_folders usr/lib/aarch64-linux-gnu/pkgconfig usr/lib/pkgconfig usr/share/pkgconfig)
list(TRANSFORM pkgconfig_folders PREPEND "${CMAKE_SYSROOT}/")
list(JOIN pkgconfig_folders ":" pkgconfig_path)
set(ENV{PKG_CONFIG_LIBDIR} "${pkgconfig_path}")

# Tests run under user-mode QEMU: the installed one, or the one that ./dev unpacks.
find_program(KOVA_QEMU qemu-aarch64-static PATHS "${CMAKE_CURRENT_LIST_DIR}/../../build/qemu-user/usr/bin")
if(KOVA_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KOVA_QEMU};-L;${CMAKE_SYSROOT}")
endif()
