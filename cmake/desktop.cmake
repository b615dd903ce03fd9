# What `cmake --install` puts under the prefix, and the checks of the desktop's files.
include(GNUInstallDirs)

set(TOVRA_INSTALL_PLUGINS ${CMAKE_INSTALL_FULL_LIBDIR}/tovra/Plugins)
set(TOVRA_GENERATED ${CMAKE_BINARY_DIR}/share)
foreach(page tovra tovra-cli)
  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/doc/${page}.1.in ${TOVRA_GENERATED}/man/man1/${page}.1 @ONLY)
endforeach()
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/resources/desktop/org.tovra.tovra.metainfo.xml
               ${TOVRA_GENERATED}/metainfo/org.tovra.tovra.metainfo.xml @ONLY)

install(TARGETS tovra-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${TOVRA_MO} DESTINATION ${CMAKE_INSTALL_LOCALEDIR}/ja/LC_MESSAGES)
install(FILES ${TOVRA_GENERATED}/man/man1/tovra-cli.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES resources/completion/tovra-cli.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME tovra-cli)
if(TARGET tovra)
  install(TARGETS tovra RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY DESTINATION ${CMAKE_INSTALL_LIBDIR}/tovra/Plugins)
  install(FILES ${TOVRA_GENERATED}/man/man1/tovra.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES resources/desktop/tovra.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
  install(FILES ${TOVRA_GENERATED}/metainfo/org.tovra.tovra.metainfo.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/metainfo)
  install(DIRECTORY resources/icons/ DESTINATION ${CMAKE_INSTALL_DATADIR}/icons)
endif()

# The desktop's own validators, and an install into a scratch prefix that runs what it installed.
if(TOVRA_TESTS)
  find_program(TOVRA_DESKTOP_VALIDATE desktop-file-validate)
  find_program(TOVRA_APPSTREAMCLI appstreamcli)
  if(TOVRA_DESKTOP_VALIDATE)
    add_test(NAME desktop_entry_valid
             COMMAND ${TOVRA_DESKTOP_VALIDATE} ${CMAKE_CURRENT_SOURCE_DIR}/resources/desktop/tovra.desktop)
  endif()
  if(TOVRA_APPSTREAMCLI)
    add_test(NAME metainfo_valid
             COMMAND ${TOVRA_APPSTREAMCLI} validate --no-net ${TOVRA_GENERATED}/metainfo/org.tovra.tovra.metainfo.xml)
  endif()
  add_test(NAME install_and_run
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tests/desktop/install_check.sh ${CMAKE_BINARY_DIR}
                   ${PROJECT_VERSION})
  add_test(NAME cli_completion
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/tests/desktop/completion_check.sh
                   ${CMAKE_CURRENT_SOURCE_DIR}/resources/completion/tovra-cli.bash $<TARGET_FILE:tovra-cli>)
  foreach(t desktop_entry_valid metainfo_valid install_and_run cli_completion)
    if(TEST ${t})
      set_tests_properties(${t} PROPERTIES LABELS desktop)
    endif()
  endforeach()
endif()
