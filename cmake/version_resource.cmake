# What Explorer shows among the details of a file that others get. `file` is its name, `type` one of VFT_APP and
# VFT_DLL. A program (not the library, which has no key in it) says when it trusts a development key;
# TalvexPublish refuses a helper that does (publisher/program_check.cpp).
function(talvex_version_resource target file type description)
  cmake_path(GET file STEM name)
  set(resource "${PROJECT_BINARY_DIR}/generated/${name}.rc")
  set(special_build_flag 0)
  set(special_build "")
  if(TALVEX_DEVELOPMENT_KEY AND type STREQUAL "VFT_APP")
    set(special_build_flag VS_FF_SPECIALBUILD)
    set(special_build "VALUE \"SpecialBuild\", \"Trusts a development key\"")
  endif()
  configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${resource}" @ONLY)
  target_sources(${target} PRIVATE "${resource}")
endfunction()
