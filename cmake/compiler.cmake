# Two interface targets: talvex_compiler for every source of the project (language level, warnings as errors, and
# the macros that all sources agree on), and talvex_program for what is linked to a program or a DLL. Apart,
# because a game that links the static library must not inherit how ours are linked.
add_library(talvex_compiler INTERFACE)
add_library(talvex_program INTERFACE)
target_link_libraries(talvex_program INTERFACE talvex_compiler)
set(CMAKE_CXX_EXTENSIONS OFF)
target_compile_features(talvex_compiler INTERFACE cxx_std_20)
target_include_directories(talvex_compiler INTERFACE ${PROJECT_SOURCE_DIR})
# Windows 7 is the oldest system that the helper runs on.
target_compile_definitions(talvex_compiler INTERFACE
  UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN STRICT _WIN32_WINNT=0x0601 WINVER=0x0601 _WIN32_IE=0x0900)

# Not in an archive, where a definition would come too late.
target_sources(talvex_program INTERFACE
  $<$<CXX_COMPILER_ID:GNU>:${PROJECT_SOURCE_DIR}/core/terminate_handler.cpp>)

option(TALVEX_COVERAGE "Count what the tests run (tools/coverage.sh); such a build is for nothing else" OFF)

# A compiler that we have not seen may warn about something new, which must not stop the build of a game.
set(warnings_are_errors $<BOOL:${PROJECT_IS_TOP_LEVEL}>)
# What cmake/debug_symbols.cmake collects. The static library keeps it, for the debug symbols of the games it is in.
set(has_symbols $<AND:$<BOOL:${PROJECT_IS_TOP_LEVEL}>,$<CONFIG:Release>>)

if(MSVC)
  target_compile_options(talvex_compiler INTERFACE /W4 $<${warnings_are_errors}:/WX> /permissive- /utf-8 /EHsc
    $<${has_symbols}:/Z7>)
  # Within a game's build, all of it has to use the game's runtime library.
  if(PROJECT_IS_TOP_LEVEL AND NOT DEFINED CMAKE_MSVC_RUNTIME_LIBRARY)
    set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  endif()
  # DEPENDENTLOADFLAG keeps imports from being searched for in the program's own directory.
  target_link_options(talvex_program INTERFACE /NXCOMPAT /DYNAMICBASE /DEPENDENTLOADFLAG:0x800 /Brepro)
else()
  target_compile_options(talvex_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wcast-qual $<${warnings_are_errors}:-Werror>
    -ffunction-sections -fdata-sections -fno-ident
    $<$<CONFIG:Release>:-Os> $<$<CONFIG:Debug>:-O1> $<${has_symbols}:-g>)
  target_compile_definitions(talvex_compiler INTERFACE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
  # Version 6.1: for Windows 7 or newer, as Visual Studio's linker sets by default. Under 4.0, ld's default,
  # windows get the frame sizes of older systems.
  target_link_options(talvex_program INTERFACE
    -Wl,--major-subsystem-version,6,--minor-subsystem-version,1
    -static -Wl,--gc-sections -Wl,--nxcompat -Wl,--dynamicbase -Wl,--no-insert-timestamp
    $<$<CONFIG:Release>:-s>)
  if(TALVEX_COVERAGE)
    target_compile_options(talvex_compiler INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(talvex_program INTERFACE --coverage)
  else()
    # Absolute paths must not reach the binary, or two checkouts would build different binaries.
    target_compile_options(talvex_compiler INTERFACE
      -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
  endif()
endif()
