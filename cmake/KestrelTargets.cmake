# One place for what every target of this project has in common.

set(KESTREL_SOURCE_ROOT ${CMAKE_CURRENT_LIST_DIR}/..)

# Language level, warnings and sanitizers of a target of this project.
function(kestrel_configure_target target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
  if(KESTREL_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(KESTREL_BUILD_FUZZ)
    # The fuzzer finds its way by what the libraries do, not by what its drivers do.
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(KESTREL_SANITIZE)
    target_compile_options(${target} PUBLIC -fsanitize=${KESTREL_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PUBLIC -fsanitize=${KESTREL_SANITIZE})
    if(KESTREL_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PUBLIC -fno-sanitize-recover=undefined)
    endif()
    # g++ tells the sources what they are built with by these; clang does not.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
      foreach(kind address thread)
        if(KESTREL_SANITIZE MATCHES ${kind})
          string(TOUPPER ${kind} kind)
          target_compile_definitions(${target} PRIVATE __SANITIZE_${kind}__)
        endif()
      endforeach()
    endif()
  endif()
endfunction()

# The standard library's headers, compiled once for all sources: they take longer than most sources do. Each file
# still includes what it uses, which the thread-safety analysis shows: it reads every file by itself. As part of
# another project the sources do without, since its flags may differ from target to target.
function(kestrel_reuse_headers target)
  if(NOT PROJECT_IS_TOP_LEVEL)
    return()
  endif()
  if(NOT TARGET kestrel_standard_headers)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/standard_headers.cpp CONTENT "")
    add_library(kestrel_standard_headers OBJECT ${PROJECT_BINARY_DIR}/standard_headers.cpp)
    target_precompile_headers(kestrel_standard_headers PRIVATE <algorithm> <array> <atomic> <charconv> <chrono>
      <cmath> <cstdint> <cstdio> <cstring> <filesystem> <functional> <map> <memory> <optional> <span> <string>
      <string_view> <system_error> <thread> <vector>)
    kestrel_configure_target(kestrel_standard_headers)
  endif()
  target_precompile_headers(${target} REUSE_FROM kestrel_standard_headers)
endfunction()

# kestrel_add_layer(NAME SOURCES ... DEPENDS ...)
# A layer of src/: a static library that sees the include root and links only the layers it names, so a
# call into a layer above does not link.
function(kestrel_add_layer name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(kestrel_${name} STATIC ${arg_SOURCES})
  add_library(kestrel::${name} ALIAS kestrel_${name})
  target_include_directories(kestrel_${name} PUBLIC ${KESTREL_SOURCE_ROOT}/src)
  target_link_libraries(kestrel_${name} PUBLIC ${arg_DEPENDS})
  kestrel_configure_target(kestrel_${name})
  kestrel_reuse_headers(kestrel_${name})
endfunction()

# kestrel_add_program(NAME SOURCES ... LINKS ...): an executable in <build>/bin.
function(kestrel_add_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
  kestrel_configure_target(${name})
  kestrel_reuse_headers(${name})
endfunction()

# What all test programs are compiled with.
function(kestrel_configure_test target)
  target_link_libraries(${target} PRIVATE GTest::gmock GTest::gtest_main)
  kestrel_configure_target(${target})
  # What is tested is built as the build type says. The tests only call it: optimising them takes as long as
  # compiling the rest, and their lines are all that a debugger needs of them.
  target_compile_options(${target} PRIVATE -O0 -g1)
  # Checks of each pointer that a test follows double the time of compiling it; those of arithmetic stay, and
  # AddressSanitizer sees what such a pointer does.
  if(KESTREL_SANITIZE MATCHES "undefined")
    target_compile_options(${target} PRIVATE -fno-sanitize=null,alignment,vptr,object-size)
  endif()
  # g++ 12 finds fault with "literal" + std::string once it has inlined it (GCC bug 105651); the sources are
  # built without this exception.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow)
  endif()
endfunction()

# kestrel_add_test(NAME SOURCES ... LINKS ... [THREADS] [SERIAL] [ALONE] [SHARDS n] [TIMEOUT seconds])
# One GoogleTest program of a subsystem; each of its tests becomes a ctest test, a process of its own.
#   THREADS  has threads, so it also runs under ThreadSanitizer (its ctest label ends in "-threads")
#   SERIAL   its tests share something host-wide (queue names, settings files) and hold one ctest lock
#   ALONE    they use up what all processes of a user share (bytes in message queues) and run by themselves
#   SHARDS   its tests compute rather than wait, and starting a process takes longer than most of them: they
#            become n ctest tests, each with its share. Run the program with --gtest_filter to pick one.
function(kestrel_add_test name)
  cmake_parse_arguments(arg "THREADS;SERIAL;ALONE" "SHARDS;TIMEOUT" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINKS})
  target_include_directories(${name} PRIVATE ${KESTREL_SOURCE_ROOT}/tests)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests)
  kestrel_configure_test(${name})
  # GoogleTest's headers take longer than most tests: they are compiled once for all programs.
  if(NOT TARGET kestrel_test_headers)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/test_headers.cpp CONTENT "")
    add_library(kestrel_test_headers OBJECT ${PROJECT_BINARY_DIR}/test_headers.cpp)
    target_precompile_headers(kestrel_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h> <algorithm>
      <array> <chrono> <filesystem> <fstream> <random> <span> <thread>)
    kestrel_configure_test(kestrel_test_headers)
  endif()
  target_precompile_headers(${name} REUSE_FROM kestrel_test_headers)
  if(NOT arg_TIMEOUT AND arg_SHARDS)
    set(arg_TIMEOUT 300)
  elseif(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  # One label a test: a list of them does not survive the way to ctest.
  set(label "${name}")
  if(arg_THREADS)
    string(APPEND label "-threads")
    # All that a ThreadSanitizer run needs to be built.
    if(NOT TARGET kestrel_thread_tests)
      add_custom_target(kestrel_thread_tests)
    endif()
    add_dependencies(kestrel_thread_tests ${name})
  endif()
  # What may take long begins first, so that no core waits for it at the end.
  set(properties TIMEOUT ${arg_TIMEOUT} COST ${arg_TIMEOUT} LABELS ${label})
  if(arg_SERIAL)
    list(APPEND properties RESOURCE_LOCK kestrel_host_names)
  endif()
  if(arg_ALONE)
    list(APPEND properties RUN_SERIAL TRUE)
  endif()
  if(arg_SHARDS)
    math(EXPR last "${arg_SHARDS} - 1")
    foreach(index RANGE ${last})
      add_test(NAME ${name}.shard${index} COMMAND ${name} --gtest_brief=1)
      set_tests_properties(${name}.shard${index} PROPERTIES ${properties}
        ENVIRONMENT "GTEST_TOTAL_SHARDS=${arg_SHARDS};GTEST_SHARD_INDEX=${index}")
    endforeach()
    return()
  endif()
  include(GoogleTest)
  gtest_discover_tests(${name} TEST_PREFIX "${name}." PROPERTIES ${properties} DISCOVERY_TIMEOUT 60)
endfunction()
