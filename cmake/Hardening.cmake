# Warning and hardening flags, each with its reason. project_flags(<target>) applies them.
function(project_flags target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror
    -Wconversion -Wsign-conversion   # sizes and codes cross 32/64-bit borders everywhere here
    -Wshadow -Wold-style-cast -Woverloaded-virtual -Wnull-dereference
    -Wcast-qual -Wformat=2 -Wundef -Wswitch-enum
    -fno-common
    -ffunction-sections -fdata-sections     # with --gc-sections: unreferenced functions are removed
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. # no path of the build machine in the file
    -ffile-prefix-map=${CMAKE_BINARY_DIR}=build)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast)
  endif()
endfunction()

# For programs that ship. The guard itself is src/base/stack_guard.cpp. The flag must not be on the link line: there it would add
# libssp, which loads cryptography DLLs before wWinMain can restrict the search path.
function(project_stack_protector target)
  target_compile_options(${target} PRIVATE -fstack-protector-strong)
endfunction()

# A fully static program without a build time in it: two builds of the same sources are identical.
function(project_link_options target)
  target_link_options(${target} PRIVATE
    -static
    -Wl,--gc-sections
    -Wl,--no-insert-timestamp
    -Wl,--major-os-version=10 -Wl,--minor-os-version=0                # Windows 10 is the oldest system supported
    -Wl,--major-subsystem-version=10 -Wl,--minor-subsystem-version=0)
endfunction()

# For programs that ship: what Windows reads before their first instruction. Without the flag tsaware a Remote Desktop host may give
# each user a Windows folder of its own.
find_program(LOAD_CONFIGURATION_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED) # the one that has pefile
function(project_load_configuration target)
  target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/src/base/load_configuration.cpp)
  target_link_options(${target} PRIVATE -Wl,--tsaware -Wl,--undefined=kLoadConfiguration)
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${CMAKE_SOURCE_DIR}/tools/load_configuration.py)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${LOAD_CONFIGURATION_PYTHON} -m tools.load_configuration $<TARGET_FILE:${target}>
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} VERBATIM)
endfunction()

# Programs that ship have no symbols. The preset "symbols" keeps them, and the linker writes a map beside each program:
# scripts/release makes the symbol files and the list of components from these, and checks that the instructions are the same.
function(project_strip target)
  if(TAVIK_KEEP_SYMBOLS)
    target_link_options(${target} PRIVATE -Wl,-Map=$<TARGET_FILE:${target}>.map)
  else()
    target_link_options(${target} PRIVATE -s)
  endif()
endfunction()
