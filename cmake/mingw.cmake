# Windows from Linux, for the architecture that the including toolchain file has set: CMAKE_SYSTEM_PROCESSOR and
# talvex_mingw, the prefix of the compiler's programs. The posix flavour of the compiler: the win32 one has no
# std::mutex, which GoogleTest needs.
set(CMAKE_SYSTEM_NAME Windows)

set(CMAKE_C_COMPILER ${talvex_mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${talvex_mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${talvex_mingw}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${talvex_mingw})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
