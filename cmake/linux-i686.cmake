# 32-bit Linux build with Debian's multilib g++: pointers, size_t and long
# are 32 bits, as in the Windows DLL, so the suite exercises that data model.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
# The same code generation as the DLL's compiler flags (SSE2 present).
set(CMAKE_C_FLAGS_INIT "-m32 -msse2")
set(CMAKE_CXX_FLAGS_INIT "-m32 -msse2")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
