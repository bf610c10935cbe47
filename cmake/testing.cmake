# Tests sign their own manifests, so they exist only in builds that trust the development key.
set(TALVEX_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "Folder of GoogleTest's sources")

if(NOT TALVEX_HELPER OR NOT TALVEX_EXAMPLES)
  message(STATUS "No tests: they let the helper update the example client, and this build leaves one of them out.")
elseif(NOT TALVEX_DEVELOPMENT_KEY)
  message(STATUS "No tests: they sign their own releases, and this build trusts a publisher's key.")
elseif(NOT EXISTS "${TALVEX_GOOGLETEST_SOURCE}/googletest/src/gtest-all.cc")
  message(WARNING "No tests: GoogleTest's sources are not in ${TALVEX_GOOGLETEST_SOURCE}. Configure with \
-DTALVEX_GOOGLETEST_SOURCE=FOLDER, the folder of a checkout of GoogleTest, to get them.")
else()
  # Debian's package has no library for Windows. Our warnings do not apply to its headers (SYSTEM).
  set(source "${TALVEX_GOOGLETEST_SOURCE}/googletest")
  add_library(talvex_googletest STATIC EXCLUDE_FROM_ALL "${source}/src/gtest-all.cc" "${source}/src/gtest_main.cc")
  target_compile_features(talvex_googletest PUBLIC cxx_std_20)
  target_include_directories(talvex_googletest SYSTEM PUBLIC "${source}/include" PRIVATE "${source}")
  enable_testing()
  add_subdirectory(tests)
  if(TALVEX_BENCHMARKS)
    add_subdirectory(benchmarks)
  endif()
endif()
