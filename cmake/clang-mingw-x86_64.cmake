# The second compiler, for its warnings: Clang with the headers and libraries of GCC. What ships is built by GCC.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

# Clang searches the GCC files in a folder named after a plain version number and does not find Debian's "12-posix" or "14-posix", so a tree of
# links has such a folder.
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot)
cmake_path(NORMAL_PATH sysroot)
file(GLOB gccFolders /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
list(LENGTH gccFolders count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "One posix variant of the mingw-w64 GCC is expected, found: ${gccFolders}. Run scripts/setup.")
endif()
string(REGEX REPLACE ".*/([0-9]+)-posix$" "\\1" version "${gccFolders}")
file(MAKE_DIRECTORY ${sysroot}/lib/gcc/x86_64-w64-mingw32)
file(CREATE_LINK ${gccFolders} ${sysroot}/lib/gcc/x86_64-w64-mingw32/${version} SYMBOLIC)
file(CREATE_LINK /usr/x86_64-w64-mingw32 ${sysroot}/x86_64-w64-mingw32 SYMBOLIC)

set(CMAKE_SYSROOT ${sysroot})
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_AR /usr/bin/x86_64-w64-mingw32-ar CACHE FILEPATH "")
set(CMAKE_RANLIB /usr/bin/x86_64-w64-mingw32-ranlib CACHE FILEPATH "")
set(CMAKE_CXX_FLAGS_INIT "-pthread -femulated-tls") # how GCC's library keeps thread-local data
# Without optimisation some inline functions of the library are emitted here and are in GCC's archive too.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--allow-multiple-definition")
unset(ENV{LIBRARY_PATH})                            # Clang would add its folders, made for this host, to the link

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
