# Cross-build for 32-bit Windows with Debian's mingw-w64 compilers.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
# The posix thread model: GoogleTest needs std::mutex; -static keeps
# its runtime inside each program.
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Every processor that runs today's 32-bit Windows has SSE2; callers compiled
# elsewhere may keep the stack only 4-byte aligned, so functions realign it.
set(CMAKE_C_FLAGS_INIT "-msse2 -mstackrealign")
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mstackrealign")
