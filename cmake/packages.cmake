# What is installed, and the packages: a .deb for Linux, two ZIPs for Windows.

include(GNUInstallDirs)
if(WIN32)
  set(ZAN_DOCUMENTS .)
  set(CMAKE_INSTALL_BINDIR .)
else()
  set(CMAKE_INSTALL_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/zan-restore)
  set(ZAN_DOCUMENTS ${CMAKE_INSTALL_DOCDIR})
endif()

install(TARGETS zan_restore zan_filter_check DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES include/zan_restore_filter.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES README.md CHANGELOG.md DESTINATION ${ZAN_DOCUMENTS})
install(FILES docs/failures.md docs/fleets.md docs/restore-filter-contract.md
  DESTINATION ${ZAN_DOCUMENTS}/docs)
install(FILES docs/images/demo.svg DESTINATION ${ZAN_DOCUMENTS}/docs/images)
if(WIN32)
  install(DIRECTORY powershell/ZanRestore DESTINATION .) # the module looks for the tool in its parent folder
else()
  install(DIRECTORY powershell DESTINATION ${ZAN_DOCUMENTS})
  install(FILES completions/zan_restore DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
  # Compressed as Debian wants it: the same bytes at every build.
  function(compressed file name component folder)
    set(compressed ${PROJECT_BINARY_DIR}/${name}.gz)
    add_custom_command(OUTPUT ${compressed} DEPENDS ${file}
      COMMAND gzip -9nc ${file} > ${compressed})
    add_custom_target(compress_${name} ALL DEPENDS ${compressed})
    install(FILES ${compressed} DESTINATION ${folder} ${component})
  endfunction()
  compressed(${PROJECT_SOURCE_DIR}/docs/zan_restore.1 zan_restore.1 "" ${CMAKE_INSTALL_MANDIR}/man1)
  # One page describes both programs.
  file(CREATE_LINK zan_restore.1.gz ${PROJECT_BINARY_DIR}/zan_filter_check.1.gz SYMBOLIC)
  install(FILES ${PROJECT_BINARY_DIR}/zan_filter_check.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  # Only in the .deb, not in `cmake --install`.
  compressed(${PROJECT_SOURCE_DIR}/packaging/changelog changelog "COMPONENT;deb;EXCLUDE_FROM_ALL"
    ${ZAN_DOCUMENTS})
  install(FILES packaging/copyright DESTINATION ${ZAN_DOCUMENTS} COMPONENT deb EXCLUDE_FROM_ALL)
  install(FILES packaging/lintian-overrides RENAME zan-restore COMPONENT deb EXCLUDE_FROM_ALL
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides)
  set(CPACK_COMPONENTS_ALL Unspecified deb)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
endif()

set(CPACK_PACKAGE_NAME zan-restore)
set(CPACK_PACKAGE_VENDOR "zan_restore maintainers")
set(CPACK_PACKAGE_CONTACT "zan_restore maintainers <maintainers@users.noreply.c-seed-128ccb42.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "set up and control the restoration of files by the restore filter")
set(CPACK_VERBATIM_VARIABLES ON)
# Every file in a package has this time, so that the packages are the same at each build.
file(WRITE ${PROJECT_BINARY_DIR}/cpack_time.cmake "set(ENV{SOURCE_DATE_EPOCH} 1795737600)\n")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/cpack_time.cmake)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME zan_restore-${PROJECT_VERSION}-windows-x64)
  # One ZIP for users, one with the symbols.
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_COMPONENTS_ALL Unspecified symbols)
  set(CPACK_ARCHIVE_UNSPECIFIED_FILE_NAME ${CPACK_PACKAGE_FILE_NAME})
  set(CPACK_ARCHIVE_SYMBOLS_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}-symbols)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_STRIP_FILES ON) # the Windows executables are stripped already
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "\
It tags files so that the restore filter, a Windows file-system minifilter
driver, fills them from a backing data file. It also sends the filter
requests: ping, start and stop of aggressive restoration, and progress. To
prepare a volume for Windows, mount it with named streams (ntfs-3g).

It comes with the header and the documents for people who write a
restore filter.")
endif()
include(CPack)
