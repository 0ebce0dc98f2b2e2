# Programs of in-process tests (GoogleTest), run under Wine through ctest.
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
include(GoogleTest)

# Half of the build is the compilers reading the same headers and optimising code that runs once. None at all would leave
# every small function of a template in each object, and the linker would take a minute to sort them out.
function(add_in_process_tests name)
  add_executable(${name} ${ARGN})
  project_flags(${name})
  project_link_options(${name})
  target_precompile_headers(${name} PRIVATE
    <functional> <string> <vector> <windows.h> <gmock/gmock.h> <gtest/gtest.h>)
  target_compile_options(${name} PRIVATE -O1)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE stack_guard gmock gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
endfunction()

# Suites that match one of the patterns get a process for each test; all other tests share one, whose results, test by test,
# are in <name>-shared.xml: ctest itself sees one test.
function(add_shared_process_tests name)
  list(JOIN ARGN ":" isolated)
  if(ARGN)
    gtest_discover_tests(${name} TEST_FILTER ${isolated} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)
  endif()
  add_test(NAME ${name}_shared WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/tests
    COMMAND ${name} --gtest_filter=-${isolated} --gtest_output=xml:${name}-shared.xml)
  set_tests_properties(${name}_shared PROPERTIES TIMEOUT 240)
endfunction()
