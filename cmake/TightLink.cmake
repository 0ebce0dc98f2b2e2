# link_tightly(<target>): removes unreferenced functions; link_tight.py says why the linker alone does not. Only for GNU ld.
set(LINK_TIGHT ${CMAKE_CURRENT_LIST_DIR}/link_tight.py)
find_program(LINK_TIGHT_PYTHON python3 REQUIRED)

function(link_tightly target)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    set_target_properties(${target} PROPERTIES CXX_LINKER_LAUNCHER "${LINK_TIGHT_PYTHON};${LINK_TIGHT}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${LINK_TIGHT})
  endif()
endfunction()
