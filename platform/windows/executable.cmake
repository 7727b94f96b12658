# What makes zan_restore a Windows executable: resources, console subsystem,
# load options.

configure_file(platform/windows/zan_restore.rc.in zan_restore.rc @ONLY)
target_sources(zan_restore PRIVATE ${PROJECT_BINARY_DIR}/zan_restore.rc)
set_property(SOURCE ${PROJECT_BINARY_DIR}/zan_restore.rc
  PROPERTY OBJECT_DEPENDS ${PROJECT_SOURCE_DIR}/platform/windows/zan_restore.manifest)
set_property(TARGET zan_restore PROPERTY LINKER_LANGUAGE CXX)

if(MSVC)
  target_link_libraries(fsfilter INTERFACE fltlib)
  # The manifest is a resource, and DLLs are looked for in System32 only.
  target_link_options(zan_restore PRIVATE
    /SUBSYSTEM:CONSOLE /ENTRY:wmainCRTStartup /MANIFEST:NO /DEPENDENTLOADFLAG:0x800
    /HIGHENTROPYVA /DYNAMICBASE /NXCOMPAT)
else()
  set(delayed_fltlib ${PROJECT_BINARY_DIR}/libdelayed_fltlib.a)
  # dlltool leaves temporary files behind.
  add_custom_command(OUTPUT ${delayed_fltlib}
    COMMAND ${CMAKE_COMMAND} -E env TMPDIR=${PROJECT_BINARY_DIR}
      ${CMAKE_DLLTOOL} --input-def ${PROJECT_SOURCE_DIR}/platform/windows/fltlib.def
      --output-delaylib ${delayed_fltlib}
    DEPENDS platform/windows/fltlib.def)
  add_custom_target(delayed_fltlib DEPENDS ${delayed_fltlib})
  add_dependencies(fsfilter delayed_fltlib)
  target_link_libraries(fsfilter INTERFACE ${delayed_fltlib} delayimp)
  target_sources(zan_restore PRIVATE platform/windows/delayed_fltlib.cpp)
  target_link_options(zan_restore PRIVATE
    -municode -mconsole -static -s
    -Wl,--high-entropy-va -Wl,--dynamicbase -Wl,--nxcompat -Wl,--no-insert-timestamp)
endif()
