# How every target of the project is compiled, and how tests are declared.
include_guard()

add_library(keld_build INTERFACE)
target_compile_options(keld_build INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
# The standard library's own headers trip these in optimised sanitizer builds of g++ 12.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND KELD_SANITIZE)
  target_compile_options(keld_build INTERFACE -Wno-maybe-uninitialized -Wno-tsan)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(keld_build INTERFACE -Wthread-safety)
endif()

if(KELD_SANITIZE)
  add_compile_options(-fsanitize=${KELD_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KELD_SANITIZE})
endif()

# Coverage of the code under test is what leads a fuzz target on.
if(KELD_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# What is tested is built as it is shipped, and checked in full; the tests themselves are to build fast.
function(keld_test_options name)
  target_link_libraries(${name} PRIVATE keld_build GTest::gmock GTest::gtest)
  target_compile_options(${name} PRIVATE -O0)
  if(KELD_SANITIZE MATCHES "undefined")
    target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
  endif()
endfunction()

# keld_test(NAME SOURCES file... [LIBRARIES target...] [LABELS label...] [TIMEOUT seconds])
# One GoogleTest program; each of its tests is a test of its own for CTest.
function(keld_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES})
  keld_test_options(${name})
  target_link_libraries(${name} PRIVATE GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM test_headers)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name}
    TEST_PREFIX "${name}."
    DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
