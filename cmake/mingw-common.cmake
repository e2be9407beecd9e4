# Shared by the MinGW toolchain files. The posix thread model gives the tests
# std::thread; the runtime is linked statically so the binaries need no
# MinGW DLLs beside them.
set(CMAKE_C_COMPILER ${UTIL_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${UTIL_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${UTIL_MINGW_TRIPLE}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${UTIL_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
