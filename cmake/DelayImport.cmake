# add_delay_import(<target> <library>...): links DLLs so that they load at the first call instead of at process start.
#
# Windows protects only its KnownDLLs against a copy planted beside the program. The others must not load before wWinMain has
# restricted the search path, so they load on demand, which also makes start-up faster. The toolchain has the helper for that but no
# delay libraries; these are made from its import libraries.
find_program(MINGW_DLLTOOL x86_64-w64-mingw32-dlltool REQUIRED)
find_program(MINGW_NM x86_64-w64-mingw32-nm REQUIRED)
find_program(MINGW_GCC x86_64-w64-mingw32-gcc-posix REQUIRED) # knows where the libraries are, also when Clang compiles

function(add_delay_import target)
  foreach(name IN LISTS ARGN)
    set(dir ${CMAKE_BINARY_DIR}/delay)
    set(out ${dir}/libdelay_${name}.a)
    if(NOT TARGET delay_${name})
      execute_process(COMMAND ${MINGW_GCC} -print-file-name=lib${name}.a
        OUTPUT_VARIABLE implib OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
      execute_process(COMMAND ${MINGW_DLLTOOL} -I ${implib}
        OUTPUT_VARIABLE dll OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
      execute_process(COMMAND ${MINGW_NM} ${implib} OUTPUT_VARIABLE syms ERROR_QUIET)
      string(REGEX MATCHALL " T [A-Za-z0-9_]+\n" syms "${syms}")
      list(TRANSFORM syms REPLACE " T ([A-Za-z0-9_]+)\n" "  \\1\n")
      list(JOIN syms "" syms)
      file(CONFIGURE OUTPUT ${dir}/${name}.def CONTENT "LIBRARY ${dll}\nEXPORTS\n${syms}")
      add_custom_command(OUTPUT ${out}
        COMMAND ${MINGW_DLLTOOL} -k -m i386:x86-64 -t delay_${name}_ -d ${name}.def -D ${dll} -y libdelay_${name}.a
        WORKING_DIRECTORY ${dir} # relative names: the output path becomes part of symbol names
        DEPENDS ${dir}/${name}.def VERBATIM)
      add_custom_target(delay_${name} DEPENDS ${out})
    endif()
    add_dependencies(${target} delay_${name})
    target_link_libraries(${target} PRIVATE ${out})
  endforeach()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE") # for programs that link a library of ours, project_load_configuration does it
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${CMAKE_SOURCE_DIR}/tools/load_configuration.py)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${LOAD_CONFIGURATION_PYTHON} -m tools.load_configuration --imports $<TARGET_FILE:${target}>
      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} VERBATIM)
  endif()
endfunction()
