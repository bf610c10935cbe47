# talvex_debug_symbols(TARGET FILE): the debug symbols of the program or DLL FILE, in a file beside it that
# cmake/package.cmake installs. FILE itself has the bytes that it would have without them. For this project's own
# Release builds: within the build of a game, the game decides.
function(talvex_debug_symbols target file)
  if(NOT PROJECT_IS_TOP_LEVEL)
    return()
  endif()
  cmake_path(GET file STEM name)
  if(MSVC)
    # With /DEBUG, the linker keeps what nothing refers to, unless told otherwise. FILE names its .pdb: without a path.
    foreach(option IN ITEMS /DEBUG /OPT:REF /OPT:ICF /PDBALTPATH:${name}.pdb)
      target_link_options(${target} PRIVATE $<$<CONFIG:Release>:${option}>)
    endforeach()
    set(symbols "$<TARGET_PDB_FILE:${target}>")
  elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    talvex_link_unstripped(${target} ${name})
    set(symbols "${PROJECT_BINARY_DIR}/${file}.debug")
    # --preserve-dates: or objcopy would write the time into the file.
    add_custom_command(OUTPUT "${symbols}"
      COMMAND "${CMAKE_OBJCOPY}" --only-keep-debug --preserve-dates "$<TARGET_FILE:${target}_unstripped>" "${symbols}"
      DEPENDS ${target}_unstripped VERBATIM)
    add_custom_target(${target}_symbols ALL DEPENDS "${symbols}")
  else()
    return()  # FILE is not stripped
  endif()
  set_property(GLOBAL APPEND PROPERTY TALVEX_SYMBOL_FILES "${symbols}")
endfunction()

# Makes the target TARGET_unstripped: the objects of `target`, linked a second time with everything the same except -s,
# so that every address is the same as well. (To link once and strip the program with objcopy would be simpler, but
# the linker's -s makes other bytes.)
function(talvex_link_unstripped target name)
  set(unstripped ${target}_unstripped)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    add_executable(${unstripped} $<TARGET_OBJECTS:${target}>)
  else()
    add_library(${unstripped} SHARED $<TARGET_OBJECTS:${target}>)
  endif()
  # Without talvex_program, whose sources are among the objects already.
  get_target_property(libraries ${target} LINK_LIBRARIES)
  list(REMOVE_ITEM libraries talvex_program)
  target_link_libraries(${unstripped} PRIVATE ${libraries})
  target_link_options(${unstripped} PRIVATE "$<FILTER:$<TARGET_PROPERTY:${target},LINK_OPTIONS>,EXCLUDE,^-s$>")
  # Under the same name, which a DLL contains, and so in another folder.
  get_target_property(for_windows ${target} WIN32_EXECUTABLE)
  set_target_properties(${unstripped} PROPERTIES LINKER_LANGUAGE CXX WIN32_EXECUTABLE ${for_windows}
    PREFIX "" OUTPUT_NAME ${name}
    RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/unstripped"
    ARCHIVE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/unstripped")
endfunction()
