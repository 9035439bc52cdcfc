# Cross toolchain for 64-bit Windows with mingw-w64. The -posix compilers use
# the POSIX thread model that std::thread and std::mutex need; the -win32
# variant has neither.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TARNWELL_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TARNWELL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TARNWELL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${TARNWELL_MINGW_TRIPLE}-windres)

# Libraries built for this toolchain (OpenSSL, GoogleTest) are found through
# CMAKE_PREFIX_PATH; host libraries are never picked up.
set(CMAKE_FIND_ROOT_PATH /usr/${TARNWELL_MINGW_TRIPLE} ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test programs run under Wine, in the prefix that scripts/wine-ctest makes.
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
endif()
