# 64-bit Windows from Linux: the update library and the example client.
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(talvex_mingw x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
