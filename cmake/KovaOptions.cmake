# Language level, warnings and hardening for all targets.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set_property(GLOBAL PROPERTY USE_FOLDERS ON)

option(KOVA_SANITIZE "Build with the address and undefined-behaviour sanitizers; with clang also the fuzz targets" OFF)
option(KOVA_HARDEN "Build with the hardening flags of a release" OFF)
option(KOVA_BATCHES "Compile the files of each library as one batch, which takes half the time" OFF)
option(KOVA_TEST_BATCHES "Compile the files of each test program as one batch" OFF)
option(KOVA_DEBUG_INFO "Compile what is shipped with debugging information, for packages of it" OFF)
option(KOVA_WERROR "Let no warning pass, as the presets do; another compiler may have others" OFF)

find_program(KOVA_CCACHE ccache)
if(KOVA_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # Relative paths let clones share the cache. ccache requires the sloppiness for precompiled headers; it is safe here,
  # since no source uses __DATE__ or __TIME__, and no command line defines a macro that a precompiled header reads.
  set(CMAKE_CXX_COMPILER_LAUNCHER
      "${CMAKE_COMMAND};-E;env;CCACHE_BASEDIR=${PROJECT_SOURCE_DIR};CCACHE_NOHASHDIR=1"
      "CCACHE_SLOPPINESS=pch_defines,time_macros;${KOVA_CCACHE}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wformat=2
                    -Wundef -Wcast-align -Wimplicit-fallthrough -Wzero-as-null-pointer-constant)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # for the macros of libsystemd and libseccomp
  add_compile_options(-Wno-c99-extensions -Wno-missing-field-initializers)
endif()
if(KOVA_WERROR)
  add_compile_options(-Werror)
endif()

# Crash reports print the build-id, which finds the matching package of debugging information.
add_link_options(-Wl,--build-id=sha1)

if(KOVA_HARDEN)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  # Undefined first: the flags of an SDK may define another level, and a redefinition is a warning.
  add_compile_options(-O2 -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack -Wl,--as-needed)
endif()

# Maps absolute and relative source paths in debugging information, so that packages are reproducible in any folder.
file(RELATIVE_PATH up ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
string(REGEX REPLACE "/$" "" up "${up}")
set(KOVA_DEBUG_OPTIONS -g1) # functions and lines, which crash reports need, in a quarter of the size of -g
foreach(folder ${up} ${PROJECT_SOURCE_DIR})
  list(APPEND KOVA_DEBUG_OPTIONS -ffile-prefix-map=${folder}=/usr/src/kova_ctlserver)
endforeach()
list(APPEND KOVA_DEBUG_OPTIONS -ffile-prefix-map=${PROJECT_BINARY_DIR}=/usr/src/kova_ctlserver/build)
if(KOVA_DEBUG_INFO)
  add_compile_options(${KOVA_DEBUG_OPTIONS})
endif()

if(KOVA_SANITIZE)
  add_compile_options(-O1 -g1 -fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # links the runtimes of the sanitizers in a third of the time
    add_link_options(-fuse-ld=lld)
  elseif(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Saves a quarter of the compile time: calls instead of inline checks, and no garbage collection below 1.5 GB.
    add_compile_options(--param=asan-instrumentation-with-call-threshold=0 --param=ggc-min-heapsize=1500000)
  endif()
endif()
