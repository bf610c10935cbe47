# Tests sign their own manifests, so they exist only in builds that trust the development key.
set(TALVEX_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Folder of GoogleTest's sources")

if(NOT TALVEX_DEVELOPMENT_KEY)
  message(STATUS "Tests are left out: they need a build with the development key (TALVEX_UPDATE_PUBLIC_KEY empty).")
elseif(NOT EXISTS "${TALVEX_GOOGLETEST_SOURCE}/googletest/src/gtest-all.cc")
  message(STATUS "Tests are left out: TALVEX_GOOGLETEST_SOURCE (${TALVEX_GOOGLETEST_SOURCE}) is not there.")
else()
  # Debian's package holds no library for Windows. Its headers are not held to our warnings (SYSTEM).
  set(source "${TALVEX_GOOGLETEST_SOURCE}/googletest")
  add_library(talvex_googletest STATIC EXCLUDE_FROM_ALL "${source}/src/gtest-all.cc" "${source}/src/gtest_main.cc")
  target_compile_features(talvex_googletest PUBLIC cxx_std_20)
  target_include_directories(talvex_googletest SYSTEM PUBLIC "${source}/include" PRIVATE "${source}")
  enable_testing()
  add_subdirectory(tests)
  add_subdirectory(tools/bench)
endif()
