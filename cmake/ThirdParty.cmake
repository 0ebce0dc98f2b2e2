# Link a target with "third_party_headers" for CLI11 (<CLI/CLI.hpp>), nlohmann-json (<nlohmann/json.hpp>) and utfcpp
# (<utf8cpp/utf8.h>). They are headers from packages of this host. The folder /usr/include itself must not be on the path of
# the cross compiler, because it has the host's C library, so the build tree gets a folder with links to these three only.
set(THIRD_PARTY_INCLUDE ${CMAKE_BINARY_DIR}/third_party/include)
add_library(third_party_headers INTERFACE)
target_include_directories(third_party_headers SYSTEM INTERFACE ${THIRD_PARTY_INCLUDE})
file(MAKE_DIRECTORY ${THIRD_PARTY_INCLUDE})
foreach(folder CLI nlohmann utf8cpp)
  if(NOT EXISTS /usr/include/${folder})
    message(FATAL_ERROR "/usr/include/${folder} is missing. Run scripts/setup, it installs what is missing.")
  endif()
  file(CREATE_LINK /usr/include/${folder} ${THIRD_PARTY_INCLUDE}/${folder} SYMBOLIC)
endforeach()
