# The import library of fltlib.dll, as the target fltlib_import. With mingw-w64, the DLL is loaded when
# one of its functions is first called.

add_library(fltlib_import INTERFACE)
if(MSVC)
  target_link_libraries(fltlib_import INTERFACE fltlib)
else()
  set(delayed_fltlib ${PROJECT_BINARY_DIR}/libdelayed_fltlib.a)
  # TMPDIR: dlltool leaves temporary files. A relative path: it derives symbol names from the output's.
  add_custom_command(OUTPUT ${delayed_fltlib}
    COMMAND ${CMAKE_COMMAND} -E env TMPDIR=${PROJECT_BINARY_DIR}
      ${CMAKE_DLLTOOL} --input-def ${PROJECT_SOURCE_DIR}/platform/windows/fltlib.def
      --output-delaylib libdelayed_fltlib.a
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    DEPENDS platform/windows/fltlib.def)
  add_custom_target(delayed_fltlib DEPENDS ${delayed_fltlib})
  add_dependencies(fltlib_import delayed_fltlib)
  target_link_libraries(fltlib_import INTERFACE ${delayed_fltlib} delayimp)
endif()
