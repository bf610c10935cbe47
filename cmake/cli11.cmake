# CLI11, which parses the command line of the publisher's tool: headers only, as the library talvex_cli11.
set(TALVEX_CLI11_INCLUDE /usr/include CACHE PATH "Folder with CLI11's headers (CLI/CLI.hpp in it)")

if(EXISTS "${TALVEX_CLI11_INCLUDE}/CLI/CLI.hpp")
  # A copy: beside the originals may lie headers of the build machine, which a cross build must not see.
  file(COPY "${TALVEX_CLI11_INCLUDE}/CLI" DESTINATION "${PROJECT_BINARY_DIR}/cli11")
  add_library(talvex_cli11 INTERFACE)
  target_include_directories(talvex_cli11 SYSTEM INTERFACE "${PROJECT_BINARY_DIR}/cli11")
else()
  message(WARNING "No TalvexPublish: CLI11's headers are not in ${TALVEX_CLI11_INCLUDE}. Configure with \
-DTALVEX_CLI11_INCLUDE=FOLDER, the folder include/ of a checkout of CLI11, to get it.")
endif()
