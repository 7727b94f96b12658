# Makes a program a Windows executable: resources, console subsystem, load options, symbols.

function(windows_executable name description)
  set(resources ${PROJECT_BINARY_DIR}/${name}.rc)
  configure_file(platform/windows/executable.rc.in ${resources} @ONLY)
  target_sources(${name} PRIVATE ${resources})
  set_property(SOURCE ${resources}
    PROPERTY OBJECT_DEPENDS ${PROJECT_SOURCE_DIR}/platform/windows/executable.manifest)
  if(MSVC)
    # /MANIFEST:NO: the manifest is a resource. 0x800: DLLs are looked for only in System32.
    target_link_options(${name} PRIVATE
      /SUBSYSTEM:CONSOLE /ENTRY:wmainCRTStartup /MANIFEST:NO /DEPENDENTLOADFLAG:0x800
      /HIGHENTROPYVA /DYNAMICBASE /NXCOMPAT /DEBUG /PDBALTPATH:%_PDB% /OPT:REF /OPT:ICF)
    install(FILES $<TARGET_PDB_FILE:${name}> DESTINATION . COMPONENT symbols)
  else()
    target_sources(${name} PRIVATE platform/windows/delayed_fltlib.cpp)
    target_link_options(${name} PRIVATE
      -municode -mconsole
      -Wl,--high-entropy-va -Wl,--dynamicbase -Wl,--nxcompat -Wl,--no-insert-timestamp)
    set(debug ${PROJECT_BINARY_DIR}/${name}.debug)
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND ${CMAKE_OBJCOPY} -p --only-keep-debug $<TARGET_FILE:${name}> ${debug}
      COMMAND ${CMAKE_STRIP} -p $<TARGET_FILE:${name}>
      COMMAND ${CMAKE_OBJCOPY} -p --add-gnu-debuglink=${debug} $<TARGET_FILE:${name}>)
    install(FILES ${debug} DESTINATION . COMPONENT symbols)
  endif()
endfunction()
