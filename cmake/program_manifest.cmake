# The manifests that keep Windows from taking a program for an installer. Every program of the project has one.

# For the helper: its own manifest and version resource (app/).
function(talvex_helper_resources target)
  set(resources "${PROJECT_BINARY_DIR}/generated/TalvexUpdateHelper.rc")
  configure_file("${PROJECT_SOURCE_DIR}/app/TalvexUpdateHelper.rc.in" "${resources}" @ONLY)
  set_source_files_properties("${resources}" PROPERTIES
    OBJECT_DEPENDS "${PROJECT_SOURCE_DIR}/app/TalvexUpdateHelper.manifest")
  target_sources(${target} PRIVATE "${resources}")
  talvex_manifest_is_a_resource(${target})
endfunction()

# For every other program.
function(talvex_program_manifest target)
  target_sources(${target} PRIVATE "${PROJECT_SOURCE_DIR}/cmake/program_manifest.rc")
  talvex_manifest_is_a_resource(${target})
endfunction()

# Visual Studio's linker must not add a manifest of its own to the one in the resources.
function(talvex_manifest_is_a_resource target)
  if(MSVC)
    target_link_options(${target} PRIVATE /MANIFEST:NO)
  endif()
endfunction()
