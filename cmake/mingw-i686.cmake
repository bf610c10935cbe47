# 32-bit Windows from Linux.
set(CMAKE_SYSTEM_PROCESSOR x86)
set(talvex_mingw i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
