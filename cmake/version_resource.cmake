# What Explorer shows among the details of a file that others get. `file` is its name, `type` one of VFT_APP and
# VFT_DLL. With TRUSTS_KEY, for programs that hold the build's key, it says when that is a development key;
# TalvexPublish refuses such a program (publisher/program_check.cpp).
function(talvex_version_resource target file type description)
  cmake_parse_arguments(PARSE_ARGV 4 version "TRUSTS_KEY" "" "")
  cmake_path(GET file STEM name)
  set(resource "${PROJECT_BINARY_DIR}/generated/${name}.rc")
  set(special_build_flag 0)
  set(special_build "")
  if(TALVEX_DEVELOPMENT_KEY AND version_TRUSTS_KEY)
    set(special_build_flag VS_FF_SPECIALBUILD)
    set(special_build "VALUE \"SpecialBuild\", \"Trusts a development key\"")
  endif()
  configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${resource}" @ONLY)
  target_sources(${target} PRIVATE "${resource}")
endfunction()
