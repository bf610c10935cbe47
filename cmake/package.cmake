# What is installed and packed, in four components: the helper for players, the publisher's tool, the update library
# for those who build the client, and the debug symbols of all three, which stay with who has built them.
if(TALVEX_HELPER)
  # Programs with a development key must not reach players, because anyone with that build folder could sign
  # updates for them. The installation of a game must not fail for it: it goes without the helper.
  if(TALVEX_DEVELOPMENT_KEY AND PROJECT_IS_TOP_LEVEL)
    foreach(component IN ITEMS helper symbols)
      install(CODE [[message(FATAL_ERROR "This build trusts a development key: no release can be made from it. \
Configure with TALVEX_UPDATE_PUBLIC_KEY set to the file of the publisher's public key.")]] COMPONENT ${component})
    endforeach()
  endif()
  if(PROJECT_IS_TOP_LEVEL OR NOT TALVEX_DEVELOPMENT_KEY)
    install(TARGETS TalvexUpdateHelper RUNTIME DESTINATION . COMPONENT helper)
  endif()
  if(TARGET TalvexPublish)
    install(TARGETS TalvexPublish RUNTIME DESTINATION . COMPONENT publisher)
    install(PROGRAMS tools/publish.sh DESTINATION . COMPONENT publisher)
    install(FILES docs/releasing.md DESTINATION . COMPONENT publisher)
  endif()
endif()

include(CMakePackageConfigHelpers)
set(talvex_package "${PROJECT_BINARY_DIR}/generated/TalvexUpdateConfigVersion.cmake")
write_basic_package_version_file("${talvex_package}" COMPATIBILITY SameMajorVersion)
install(TARGETS talvex_update talvex_update_static EXPORT TalvexUpdate
  RUNTIME DESTINATION bin COMPONENT library
  LIBRARY DESTINATION lib COMPONENT library
  ARCHIVE DESTINATION lib COMPONENT library)
install(FILES client/talvex_update.h DESTINATION include COMPONENT library)
install(FILES "${talvex_package}" DESTINATION lib/cmake/TalvexUpdate COMPONENT library)
# The libraries need nothing that the consumer would have to find first: the list of targets is the package.
install(EXPORT TalvexUpdate FILE TalvexUpdateConfig.cmake NAMESPACE TalvexUpdate::
  DESTINATION lib/cmake/TalvexUpdate COMPONENT library)

get_property(talvex_symbol_files GLOBAL PROPERTY TALVEX_SYMBOL_FILES)
if(talvex_symbol_files)
  install(FILES ${talvex_symbol_files} DESTINATION . CONFIGURATIONS Release COMPONENT symbols)
endif()

# An archive for each component.
if(PROJECT_IS_TOP_LEVEL)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  include(CPack)
endif()
