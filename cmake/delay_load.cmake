# Imports that must not be resolved before the entry has run. The helper lies in a directory that its user can
# write. Windows resolves plain imports before the entry runs and looks beside the program first, except for
# the few "known DLLs" (kernel32, user32, gdi32, advapi32, shell32, ole32, msvcrt). Every other DLL is therefore
# loaded at its first call, when the entry has left only System32 to be searched (app/dll_search).
#
# talvex_bcrypt and talvex_comctl32 are linked in place of bcrypt and comctl32.
foreach(dll IN ITEMS bcrypt comctl32)
  add_library(talvex_${dll} INTERFACE)
  if(MSVC)
    target_link_libraries(talvex_${dll} INTERFACE ${dll} delayimp)
    target_link_options(talvex_${dll} INTERFACE /DELAYLOAD:${dll}.dll)
  else()
    # A function that is called and not named in the .def fails to link. dlltool puts the output's path into
    # symbols and member names, by which ld sorts: a short one keeps the program the same in every folder.
    set(definition "${CMAKE_CURRENT_LIST_DIR}/${dll}.def")
    set(archive lib${dll}_delayed.a)
    add_custom_command(OUTPUT ${archive}
      COMMAND "${CMAKE_DLLTOOL}" --kill-at --input-def "${definition}" --output-delaylib ${archive}
      WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
      DEPENDS "${definition}" COMMENT "Making the delay-import library of ${dll}.dll" VERBATIM)
    add_custom_target(talvex_${dll}_delayed DEPENDS ${archive})
    add_dependencies(talvex_${dll} talvex_${dll}_delayed)
    target_link_libraries(talvex_${dll} INTERFACE "${CMAKE_CURRENT_BINARY_DIR}/${archive}")
    # --gc-sections does not see that the slot of a delayed import points at its stub. Where a header declares
    # the function dllimport, calls name the slot alone, the stub would go and the first call would jump to 0.
    file(STRINGS "${definition}" functions REGEX "@")
    list(TRANSFORM functions PREPEND "LINKER:--undefined=_")
    target_link_options(talvex_${dll} INTERFACE ${functions})
  endif()
endforeach()
