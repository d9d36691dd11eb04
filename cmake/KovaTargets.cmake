# Functions that declare the project's targets.

# kova_batch(<target> <option>)
#
# If the option is on, compiles the files of a target as one batch, in half the time or less: neighbours include the
# same headers and instantiate the same templates. Each file keeps its own identity in the log. A file with the property
# COMPILE_DEFINITIONS or KOVA_ALONE is compiled alone.
#
# CMake's UNITY_BUILD includes files by absolute path, so clones could not share ccache's results.
function(kova_batch name option)
  if(${option}) # once the properties of all files are known
    cmake_language(EVAL CODE "cmake_language(DEFER CALL kova_write_batch ${name})")
  endif()
endfunction()

function(kova_write_batch name)
  get_target_property(sources ${name} SOURCES)
  set(text)
  foreach(source ${sources})
    get_source_file_property(alone ${source} KOVA_ALONE)
    get_source_file_property(definitions ${source} COMPILE_DEFINITIONS)
    if(alone OR definitions)
      continue()
    endif()
    set_source_files_properties(${source} PROPERTIES HEADER_FILE_ONLY ON)
    get_filename_component(path ${source} ABSOLUTE)
    file(RELATIVE_PATH path ${PROJECT_SOURCE_DIR} ${path})
    string(MAKE_C_IDENTIFIER ${path} file)
    string(APPEND text "
#define kLogIdentity kLogIdentity_${file}
#define kLogUnit kLogUnit_${file}
#include \"${path}\"
#undef kLogIdentity
#undef kLogUnit
")
  endforeach()
  if(NOT text)
    return()
  endif()
  set(batch ${CMAKE_CURRENT_BINARY_DIR}/batches/${name}.cpp)
  file(CONFIGURE OUTPUT ${batch} CONTENT "// NOLINTBEGIN\n${text}// NOLINTEND\n" @ONLY)
  target_sources(${name} PRIVATE ${batch})
  target_compile_options(${name} PRIVATE "SHELL:-iquote ${PROJECT_SOURCE_DIR}")
endfunction()

# kova_covered(<target>)
#
# Records the coverage of a target's code for the fuzz targets, in builds that have them. It costs a quarter of the
# compile time.
function(kova_covered name)
  if(KOVA_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endfunction()

# kova_library(<name> SOURCES <file>... [DEPENDS <target>...] [PRIVATE_DEPENDS <target>...])
#
# A static library. Its public headers, if any, are in the folder "include" beside its CMakeLists.txt.
function(kova_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/src)
  if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/include)
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
  kova_covered(${name})
  kova_batch(${name} KOVA_BATCHES)
endfunction()

# kova_test_options(<target>)
#
# Options for the tests' own code, as opposed to the code under test: no optimisation, and no UBSan, which would double
# the time of a sanitizer build. ASan stays on.
function(kova_test_options name)
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # ccache needs the first; without the second, garbage collection takes an eighth of the time.
    target_compile_options(${name} PRIVATE -fpch-preprocess --param=ggc-min-heapsize=1500000)
  elseif(CMAKE_CXX_COMPILER_ID STREQUAL "Clang") # for ccache
    target_compile_options(${name} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
  if(KOVA_SANITIZE)
    target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
  endif()
  if(KOVA_DEBUG_INFO) # would add tens of megabytes to each test program
    target_compile_options(${name} PRIVATE -g0)
    target_link_options(${name} PRIVATE -Wl,--strip-debug)
  endif()
endfunction()

# kova_test_library(<name> STATIC|OBJECT SOURCES <file>... [DEPENDS <target>...] [HEADERS <target of kova_test_headers>])
#
# Code shared by several test programs. Its headers are beside its CMakeLists.txt.
function(kova_test_library name type)
  cmake_parse_arguments(ARG "" "HEADERS" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} ${type} ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})
  kova_test_options(${name})
  kova_batch(${name} KOVA_TEST_BATCHES)
  if(ARG_HEADERS) # a precompiled header requires the compile options that it was built with
    target_link_libraries(${name} PRIVATE GTest::gmock GTest::gtest)
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_compile_options(${name} PRIVATE -fPIE)
    target_precompile_headers(${name} REUSE_FROM ${ARG_HEADERS})
  endif()
endfunction()

# kova_test_headers(<name> HEADERS <header>... [DEPENDS <target>...])
#
# Headers precompiled once for all test programs that name them: parsing GoogleTest's takes longer than most tests.
function(kova_test_headers name)
  cmake_parse_arguments(ARG "" "" "HEADERS;DEPENDS" ${ARGN})
  # An executable, because a precompiled header fits only targets with the same compile options.
  file(CONFIGURE OUTPUT ${name}.cpp CONTENT "int main() {}\n")
  add_executable(${name} EXCLUDE_FROM_ALL ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS})
  kova_test_options(${name})
  target_precompile_headers(${name} PRIVATE ${ARG_HEADERS})
endfunction()

# kova_test(<name> SOURCES <file>... [DEPENDS <target>...] [LABELS <label>...] [TIMEOUT <seconds>]
#           [HEADERS <target of kova_test_headers>] [PRIVATE_ROOT] [UNSANITIZED])
#
# A GoogleTest program, run by ctest as one test; under the emulator when cross-compiled. With PRIVATE_ROOT it runs
# through tests/private-root, and refuses to run outside it. UNSANITIZED: see kova_unsanitized_test.
function(kova_test name)
  cmake_parse_arguments(ARG "PRIVATE_ROOT;UNSANITIZED" "TIMEOUT;HEADERS" "SOURCES;DEPENDS;LABELS" ${ARGN})
  if(NOT BUILD_TESTING OR (ARG_UNSANITIZED AND KOVA_SANITIZE))
    return()
  endif()
  find_package(GTest REQUIRED)
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} GTest::gmock GTest::gtest GTest::gtest_main)
  kova_test_options(${name})
  list(LENGTH ARG_SOURCES files)
  if(files GREATER 1)
    kova_batch(${name} KOVA_TEST_BATCHES)
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
  if(ARG_UNSANITIZED)
    list(APPEND ARG_LABELS unsanitized)
    set_property(GLOBAL APPEND PROPERTY KOVA_UNSANITIZED ${name})
  endif()
  add_test(NAME ${name}
           COMMAND ${launcher} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

# kova_unsanitized_test(<name> COMMAND <word>... [LABEL <label>] [TIMEOUT <seconds>] [COST <seconds>] [PROGRAMS <target>...])
#
# A test that exists only in builds without sanitizers: of scripts or documents, or of programs in which the sanitizers
# would find nothing. The label "unsanitized" selects these tests, and the target "unsanitized" builds their PROGRAMS.
# KOVA_BUILD in a test's environment is the folder of the programs. Exit status 77 means skipped.
function(kova_unsanitized_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT;COST" "COMMAND;PROGRAMS" ${ARGN})
  if(NOT BUILD_TESTING OR KOVA_SANITIZE)
    return()
  endif()
  if(NOT ARG_LABEL)
    set(ARG_LABEL unit)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_test(NAME ${name} COMMAND ${ARG_COMMAND})
  set_tests_properties(${name} PROPERTIES
    ENVIRONMENT "KOVA_BUILD=${PROJECT_BINARY_DIR}" LABELS "${ARG_LABEL};unsanitized"
    SKIP_RETURN_CODE 77 TIMEOUT ${ARG_TIMEOUT})
  if(ARG_COST) # ctest starts the longest first
    set_tests_properties(${name} PROPERTIES COST ${ARG_COST})
  endif()
  set_property(GLOBAL APPEND PROPERTY KOVA_UNSANITIZED ${ARG_PROGRAMS})
endfunction()

# kova_command(<variable> <target>)
#
# Sets <variable> to the command with which a test runs the program <target>: the program or, when cross-compiling, a
# script of its name that runs it under the emulator.
function(kova_command variable target)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    set(${variable} $<TARGET_FILE:${target}> PARENT_SCOPE)
    return()
  endif()
  set(script ${PROJECT_BINARY_DIR}/emulated/${target})
  set(${variable} ${script} PARENT_SCOPE)
  get_property(made GLOBAL PROPERTY KOVA_EMULATED)
  if(target IN_LIST made) # by another test
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
# A libFuzzer program, built only with the sanitizers and clang.
function(kova_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  if(NOT KOVA_SANITIZE OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    return()
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS})
  kova_covered(${name})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_property(GLOBAL APPEND PROPERTY KOVA_FUZZERS ${name})
endfunction()
