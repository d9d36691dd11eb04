# The target kova_sdbus: the library that provides sd-bus, and <kova_sd_bus.h>, which includes its header. The board
# decides which library that is: libsystemd, or one of those for systems without systemd, with the same functions but
# another header path.
include(CheckIncludeFileCXX)

set(KOVA_SDBUS libsystemd libelogind basu CACHE STRING "Packages of pkg-config that may hold sd-bus, the first of them first")
pkg_search_module(SDBUS REQUIRED IMPORTED_TARGET ${KOVA_SDBUS})

set(CMAKE_REQUIRED_INCLUDES ${SDBUS_INCLUDE_DIRS})
foreach(folder systemd elogind basu)
  check_include_file_cxx(${folder}/sd-bus.h KOVA_SDBUS_IN_${folder})
  if(KOVA_SDBUS_IN_${folder})
    set(KOVA_SDBUS_HEADER ${folder}/sd-bus.h)
    break()
  endif()
endforeach()
unset(CMAKE_REQUIRED_INCLUDES)
if(NOT KOVA_SDBUS_HEADER)
  message(FATAL_ERROR "${SDBUS_MODULE_NAME} has no sd-bus.h where one is expected")
endif()
message(STATUS "sd-bus: ${SDBUS_MODULE_NAME} ${SDBUS_VERSION}, <${KOVA_SDBUS_HEADER}>")

set(KOVA_SDBUS_PRAGMA)
if(SDBUS_MODULE_NAME STREQUAL libelogind) # its vtable macros leave members uninitialised
  set(KOVA_SDBUS_PRAGMA "#pragma GCC diagnostic ignored \"-Wmissing-field-initializers\"\n")
endif()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/kova_sd_bus.h
     CONTENT "#pragma once\n@KOVA_SDBUS_PRAGMA@\n#include <@KOVA_SDBUS_HEADER@>\n" @ONLY)
add_library(kova_sdbus INTERFACE)
target_include_directories(kova_sdbus INTERFACE ${PROJECT_BINARY_DIR}/generated)
target_link_libraries(kova_sdbus INTERFACE PkgConfig::SDBUS)
