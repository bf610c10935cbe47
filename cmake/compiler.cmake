# One interface target that every program and library of the project links: language level, warnings as
# errors, and the macros that all sources agree on.
add_library(talvex_compiler INTERFACE)
set(CMAKE_CXX_EXTENSIONS OFF)
target_compile_features(talvex_compiler INTERFACE cxx_std_20)
target_include_directories(talvex_compiler INTERFACE ${PROJECT_SOURCE_DIR})
# Windows 7 is the oldest system that the helper runs on.
target_compile_definitions(talvex_compiler INTERFACE
  UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN STRICT _WIN32_WINNT=0x0601 WINVER=0x0601 _WIN32_IE=0x0900)

# For programs only, not for libraries: a definition in an archive would come too late.
target_sources(talvex_compiler INTERFACE
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>>:${PROJECT_SOURCE_DIR}/core/terminate_handler.cpp>)

option(TALVEX_COVERAGE "Count what the tests run (tools/coverage.sh); such a build is for nothing else" OFF)

if(MSVC)
  target_compile_options(talvex_compiler INTERFACE /W4 /WX /permissive- /utf-8 /EHsc)
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
  # DEPENDENTLOADFLAG keeps imports from being searched for in the program's own directory.
  target_link_options(talvex_compiler INTERFACE /NXCOMPAT /DYNAMICBASE /DEPENDENTLOADFLAG:0x800 /Brepro)
else()
  target_compile_options(talvex_compiler INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wcast-qual -Werror
    -ffunction-sections -fdata-sections -fno-ident
    $<$<CONFIG:Release>:-Os> $<$<CONFIG:Debug>:-O1>)
  target_compile_definitions(talvex_compiler INTERFACE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
  # Version 6.1: for Windows 7 or newer, as Visual Studio's linker sets by default. Under 4.0, ld's default,
  # windows get the frame sizes of older systems.
  target_link_options(talvex_compiler INTERFACE
    -Wl,--major-subsystem-version,6,--minor-subsystem-version,1
    -static -Wl,--gc-sections -Wl,--nxcompat -Wl,--dynamicbase -Wl,--no-insert-timestamp
    $<$<CONFIG:Release>:-s>)
  if(TALVEX_COVERAGE)
    target_compile_options(talvex_compiler INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(talvex_compiler INTERFACE --coverage)
  else()
    # Absolute paths must not reach the binary, or two checkouts would build different binaries.
    target_compile_options(talvex_compiler INTERFACE
      -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
  endif()
endif()
