# What Explorer shows among the details of a file that others get. `file` is its name, `type` one of VFT_APP and
# VFT_DLL.
function(talvex_version_resource target file type description)
  cmake_path(GET file STEM name)
  set(resource "${PROJECT_BINARY_DIR}/generated/${name}.rc")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/version.rc.in" "${resource}" @ONLY)
  target_sources(${target} PRIVATE "${resource}")
endfunction()
