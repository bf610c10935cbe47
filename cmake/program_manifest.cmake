# The manifests that keep Windows from taking a program for an installer. Every program of the project has one.

# For the helper: its own.
function(talvex_helper_manifest target)
  set(resource "${PROJECT_SOURCE_DIR}/app/TalvexUpdateHelper.rc")
  set_source_files_properties("${resource}" PROPERTIES
    OBJECT_DEPENDS "${PROJECT_SOURCE_DIR}/app/TalvexUpdateHelper.manifest")
  target_sources(${target} PRIVATE "${resource}")
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
