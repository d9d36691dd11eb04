# The kinds of target of this project, each declared in one call.

# kova_batches(<target> <option>)
#
# Compiles the files of a target together, if the option is on, in half the time: most of what a file costs are templates
# that its neighbours need, too. What each file calls itself in the log stays its own. A file with COMPILE_DEFINITIONS or
# KOVA_ALONE among its properties is compiled alone.
#
# CMake's own UNITY_BUILD names files by their absolute paths, so that ccache could not serve one clone by what another has
# compiled.
function(kova_batches name option)
  if(${option}) # once the properties of all files are known
    cmake_language(EVAL CODE "cmake_language(DEFER CALL kova_write_batches ${name})")
  endif()
endfunction()

function(kova_write_batches name)
  get_target_property(sources ${name} SOURCES)
  set(batch 0)
  set(files)
  foreach(source ${sources})
    get_source_file_property(alone ${source} KOVA_ALONE)
    get_source_file_property(definitions ${source} COMPILE_DEFINITIONS)
    if(NOT alone AND NOT definitions)
      list(APPEND files ${source})
    endif()
    list(LENGTH files count)
    if(count EQUAL 12)
      kova_write_batch(${name} ${CMAKE_CURRENT_BINARY_DIR}/batches/${name}_${batch}.cpp ${files})
      math(EXPR batch "${batch} + 1")
      set(files)
    endif()
  endforeach()
  if(files)
    kova_write_batch(${name} ${CMAKE_CURRENT_BINARY_DIR}/batches/${name}_${batch}.cpp ${files})
  endif()
  target_compile_options(${name} PRIVATE "SHELL:-iquote ${PROJECT_SOURCE_DIR}")
endfunction()

function(kova_write_batch name batch)
  set(text "// NOLINTBEGIN\n")
  foreach(source ${ARGN})
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
  file(CONFIGURE OUTPUT ${batch} CONTENT "${text}// NOLINTEND\n" @ONLY)
  set_source_files_properties(${ARGN} PROPERTIES HEADER_FILE_ONLY ON)
  target_sources(${name} PRIVATE ${batch})
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
# What is tested is built as the preset says; optimising the tests' own code only costs time, and so do, in half of what a
# sanitizer build costs, the checks of undefined behaviour in it. It stays under the address sanitizer.
function(kova_test_options name)
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The first for ccache; collecting garbage below 1.5 GB would take an eighth of the time.
    target_compile_options(${name} PRIVATE -fpch-preprocess --param=ggc-min-heapsize=1500000)
  endif()
  if(KOVA_SANITIZE)
    target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
  endif()
  if(KOVA_DEBUG_INFO) # of the tests it would be tens of megabytes each
    target_compile_options(${name} PRIVATE -g0)
    target_link_options(${name} PRIVATE -Wl,--strip-debug)
  endif()
endfunction()

# kova_test_library(<name> STATIC|OBJECT SOURCES <file>... [DEPENDS <target>...] [HEADERS <target of kova_test_headers>])
#
# What several test programs share; its headers stand beside its CMakeLists.txt.
function(kova_test_library name type)
  cmake_parse_arguments(ARG "" "HEADERS" "SOURCES;DEPENDS" ${ARGN})
  add_library(${name} ${type} ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})
  kova_test_options(${name})
  kova_batches(${name} KOVA_TEST_BATCHES)
  if(ARG_HEADERS) # which are compiled as those of a program with GoogleTest
    target_link_libraries(${name} PRIVATE GTest::gmock GTest::gtest)
    set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
    target_compile_options(${name} PRIVATE -fPIE)
    target_precompile_headers(${name} REUSE_FROM ${ARG_HEADERS})
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
#           [HEADERS <target of kova_test_headers>] [PRIVATE_ROOT] [UNSANITIZED])
#
# A GoogleTest program, run by ctest as one test; under the emulator, when compiled for another processor.
# With PRIVATE_ROOT it is run through tests/private-root, and refuses to run without. UNSANITIZED: see
# kova_unsanitized_test.
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
# A test of scripts, of documents, or of programs on which the sanitizers would see nothing new or fail. It runs only in
# builds without them, where "ctest -L unsanitized" selects the tests of this kind and the target "unsanitized" builds
# their PROGRAMS and those of a camera. Exit status 77: skipped. KOVA_BUILD is the folder of the programs.
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
  if(ARG_COST) # the longest begins first
    set_tests_properties(${name} PROPERTIES COST ${ARG_COST})
  endif()
  set_property(GLOBAL APPEND PROPERTY KOVA_UNSANITIZED ${ARG_PROGRAMS})
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
