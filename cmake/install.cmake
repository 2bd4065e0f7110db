# What `cmake --install` puts in place; DESTDIR and the prefix are honoured. The service is for whoever
# supervises it, not for a user's command line: it lies in libexec.
set(installed_programs bthalctl zvksim zvkpowerstats)
# The same search path in the build folder and installed: that of the platform libraries, and no other.
set_target_properties(bthal_daemon ${installed_programs} PROPERTIES
                      BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH ${android_lib_dir})
install(TARGETS bthal_daemon RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/bthal)
install(TARGETS ${installed_programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# Below the prefix, but for /usr: settings are in /etc then. The prefix may be given when it is installed.
install(CODE "set(settings \"${CMAKE_INSTALL_SYSCONFDIR}\")
  if(settings STREQUAL \"etc\" AND CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(settings /etc)
  endif()
  cmake_path(ABSOLUTE_PATH settings BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
  file(INSTALL \"${CMAKE_SOURCE_DIR}/packaging/linux/default.conf\" DESTINATION \"\${settings}/bthal\")")

# The manual pages; "man bthal" finds the service's, too.
file(GLOB manual_pages CONFIGURE_DEPENDS docs/man/*.[1-8])
foreach(page ${manual_pages})
  string(REGEX MATCH "[1-8]$" section ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
