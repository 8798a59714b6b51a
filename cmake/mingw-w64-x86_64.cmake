# Cross-compiles for 64-bit Windows with Debian's MinGW-w64 (package
# g++-mingw-w64-x86-64-posix; the posix flavour has std::thread).
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake ...
# Libraries built for Windows (Qt, libarchive...) are found under the roots
# given in CMAKE_FIND_ROOT_PATH, for example an unpacked Windows SDK
# (scripts/win64.sh); the MinGW-w64 system root is appended to them.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CORBETH_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${CORBETH_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${CORBETH_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${CORBETH_MINGW_PREFIX}-windres)

list(APPEND CMAKE_FIND_ROOT_PATH /usr/${CORBETH_MINGW_PREFIX})
list(REMOVE_DUPLICATES CMAKE_FIND_ROOT_PATH)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
