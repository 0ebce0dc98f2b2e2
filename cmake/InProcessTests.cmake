# Programs of in-process tests (GoogleTest), run under Wine through ctest.
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
foreach(library IN ITEMS gtest gmock)
  target_compile_options(${library} PRIVATE -O0) # compiled sooner
endforeach()
include(GoogleTest)

# Half of the build would be the compilers reading the same headers and optimising code that runs once. So the sources of a
# folder are compiled as one. No optimisation at all would leave every small function of a template in each object, and the
# linker would take a minute to sort them out.
function(add_in_process_tests name)
  add_executable(${name} ${ARGN})
  project_flags(${name})
  project_link_options(${name})
  target_precompile_headers(${name} PRIVATE
    <functional> <string> <vector> <windows.h> <gmock/gmock.h> <gtest/gtest.h>)
  target_compile_options(${name} PRIVATE -O1)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE stack_guard gmock gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests
    UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
  foreach(source IN LISTS ARGN)
    cmake_path(GET source PARENT_PATH folder)
    cmake_path(GET folder FILENAME folder)
    set_source_files_properties(${source} PROPERTIES UNITY_GROUP ${folder})
  endforeach()
  add_shared_process_tests(${name} ${ARGN})
endfunction()

# Starting a process takes ten times as long as most tests, so all tests share one. A suite that needs a process for each of
# its tests has a line "// Own process: REASON" directly above one of them. The results of the shared process, test by test,
# are in <name>-shared.xml: ctest itself sees one test.
function(add_shared_process_tests name)
  set(filters)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ARGN})
  foreach(source IN LISTS ARGN)
    file(READ ${source} text)
    string(REGEX REPLACE "[][;]" "" text "${text}") # characters that would break the lists below
    string(REGEX MATCHALL "// Own process: " marks "${text}")
    string(REGEX MATCHALL "\n// Own process: [^\n]+\n(//[^\n]*\n)*TEST[_FP]*\\([A-Za-z0-9_]+," tests "${text}")
    list(LENGTH marks mark_count)
    list(LENGTH tests test_count)
    if(NOT mark_count EQUAL test_count)
      message(FATAL_ERROR "${source}: a line \"// Own process: REASON\" is not directly above a test. Move it there.")
    endif()
    foreach(test IN LISTS tests)
      string(REGEX REPLACE ".*\\(([A-Za-z0-9_]+),$" "\\1" suite "${test}")
      list(APPEND filters ${suite}.* */${suite}.*)
    endforeach()
  endforeach()
  list(JOIN filters ":" filter)
  if(filter)
    gtest_discover_tests(${name} TEST_FILTER ${filter} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)
  endif()
  add_test(NAME ${name}_shared WORKING_DIRECTORY ${CMAKE_BINARY_DIR}/tests
    COMMAND ${name} --gtest_filter=-${filter} --gtest_output=xml:${name}-shared.xml)
  set_tests_properties(${name}_shared PROPERTIES TIMEOUT 240)
endfunction()
