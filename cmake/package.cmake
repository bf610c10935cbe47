# A release consists of the helper alone. Programs with a development key must not reach players, because
# anyone with that build folder could sign updates for them.
if(TALVEX_DEVELOPMENT_KEY)
  install(CODE [[message(FATAL_ERROR "This build trusts a development key: no release can be made from it. \
Configure with TALVEX_UPDATE_PUBLIC_KEY set to the file of the publisher's public key.")]])
endif()
install(TARGETS TalvexUpdateHelper RUNTIME DESTINATION .)

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_NAME TalvexUpdateHelper)
include(CPack)
