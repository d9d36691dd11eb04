# The kinds of target of this project, each declared in one call.

# kova_batches(<target> <option>)
#
# Compiles the files of a target together, if the option is on, in half the time: most of what a file costs are templates
# that its neighbours need, too. What each file calls itself in the log stays its own.
function(kova_batches name option)
  set_target_properties(${name} PROPERTIES
    UNITY_BUILD ${${option}} UNITY_BUILD_BATCH_SIZE 12 UNITY_BUILD_UNIQUE_ID KOVA_FILE
    UNITY_BUILD_CODE_BEFORE_INCLUDE [[
// NOLINTBEGIN
#define KOVA_JOIN_(A, B) A##B
#define KOVA_JOIN(A, B) KOVA_JOIN_(A, B)
#define kLogIdentity KOVA_JOIN(kLogIdentity, KOVA_FILE)
#define kLogUnit KOVA_JOIN(kLogUnit, KOVA_FILE)]]
    UNITY_BUILD_CODE_AFTER_INCLUDE [[
#undef kLogIdentity
#undef kLogUnit
// NOLINTEND]])
endfunction()

# kova_library(<name> SOURCES <file>... [DEPENDS <target>...] [PRIVATE_DEPENDS <target>...])
#
# A static library. Its public headers, if it has some of its own, lie in the "include" folder beside its
# CMakeLists.txt.
function(kova_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include)
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
  kova_batches(${name} KOVA_BATCHES)
endfunction()

# kova_test_options(<target>)
#
# What is tested is built as the preset says; optimising the tests' own code only costs time.
function(kova_test_options name)
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${name} PRIVATE -fpch-preprocess) # for ccache
  endif()
  if(KOVA_DEBUG_INFO) # of the tests it would be tens of megabytes each
    target_compile_options(${name} PRIVATE -g0)
    target_link_options(${name} PRIVATE -Wl,--strip-debug)
  endif()
endfunction()

# kova_test_headers(<name> HEADERS <header>... [DEPENDS <target>...])
#
# Headers that are compiled once for all test programs that name them: GoogleTest's take more time than most tests.
function(kova_test_headers name)
  cmake_parse_arguments(ARG "" "" "HEADERS;DEPENDS" ${ARGN})
  # A program, since headers suit only what is compiled by the same options.
  file(CONFIGURE OUTPUT ${name}.cpp CONTENT "int main() {}\n")
  add_executable(${name} EXCLUDE_FROM_ALL ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS})
  kova_test_options(${name})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# kova_test(<name> SOURCES <file>... [DEPENDS <target>...] [LABELS <label>...] [TIMEOUT <seconds>]
#           [HEADERS <target of kova_test_headers>] [PRIVATE_ROOT])
#
# A GoogleTest program, run by ctest as one test; under the emulator, when compiled for another processor.
# With PRIVATE_ROOT it is run through tests/private-root, and refuses to run without.
function(kova_test name)
  cmake_parse_arguments(ARG "PRIVATE_ROOT" "TIMEOUT;HEADERS" "SOURCES;DEPENDS;LABELS" ${ARGN})
  if(NOT BUILD_TESTING)
    return()
  endif()
  find_package(GTest REQUIRED)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} GTest::gmock GTest::gtest GTest::gtest_main)
  kova_test_options(${name})
  list(LENGTH ARG_SOURCES files)
  if(files GREATER 1)
    kova_batches(${name} KOVA_TEST_BATCHES)
  endif()
  if(NOT ARG_HEADERS)
    set(ARG_HEADERS kova_gtest_headers)
  endif()
  target_precompile_headers(${name} REUSE_FROM ${ARG_HEADERS})
  set(launcher)
  if(ARG_PRIVATE_ROOT)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/PrivateRootGuard.cpp)
    set(launcher ${PROJECT_SOURCE_DIR}/tests/private-root)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 180)
  endif()
  if(NOT ARG_LABELS)
    set(ARG_LABELS unit)
  endif()
  add_test(NAME ${name}
           COMMAND ${launcher} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# kova_source_test(<name> TIMEOUT <seconds> COMMAND <word>...)
#
# A test of scripts or documents alone. It does not run under the sanitizers: it would not notice them.
function(kova_source_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "COMMAND" ${ARGN})
  if(KOVA_SANITIZE)
    return()
  endif()
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS unit)
endfunction()

# kova_command(<variable> <target>)
#
# What a test runs to run the program <target>: itself or, when it is compiled for another processor, a
# script of its name that runs it under the emulator.
function(kova_command variable target)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${variable} $<TARGET_FILE:${target}> PARENT_SCOPE)
    return()
  endif()
  set(script ${PROJECT_BINARY_DIR}/emulated/${target})
  set(${variable} ${script} PARENT_SCOPE)
  get_property(made GLOBAL PROPERTY KOVA_EMULATED)
  if(target IN_LIST made) # several tests may run it
    return()
  endif()
  set_property(GLOBAL APPEND PROPERTY KOVA_EMULATED ${target})
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" words)
  file(GENERATE OUTPUT ${script}
    CONTENT "#!/bin/sh\nexec '${words}' '$<TARGET_FILE:${target}>' \"$@\"\n"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                     WORLD_READ WORLD_EXECUTE)
endfunction()

# kova_fuzzer(<name> SOURCES <file>... [DEPENDS <target>...])
#
# A libFuzzer program; built only in the preset "fuzz".
function(kova_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  if(NOT KOVA_FUZZ)
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_property(GLOBAL APPEND PROPERTY KOVA_FUZZERS ${name})
endfunction()
