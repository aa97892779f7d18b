# Debian packages ftc-server and ftc-device (make package); included once every target exists.
set(svc ${PROJECT_SOURCE_DIR}/service)
option(FTC_MAN "Generate the man pages from the programs' help texts (help2man)" OFF)
set(FTC_PACKAGE_RELEASE "" CACHE STRING "Debian revision appended to the version (upgrade tests)")

include(GNUInstallDirs)
set(private_libs lib/ftc)
set(deb ${CMAKE_BINARY_DIR}/deb)

# Installed, the host finds its libraries in their private folder.
if(TARGET ftc-host)
  set_target_properties(ftc-host PROPERTIES INSTALL_RPATH "\$ORIGIN/../${private_libs}")
  install(TARGETS ftc-host RUNTIME DESTINATION bin COMPONENT device)
  # Installed, the libraries sit together and need nothing but their own folder.
  set_target_properties(FileTransferConfiglet winux ftchost xq_clapi_dll PROPERTIES
                        INSTALL_RPATH "\$ORIGIN")
  install(TARGETS FileTransferConfiglet winux ftchost xq_clapi_dll
          LIBRARY DESTINATION ${private_libs} COMPONENT device)
endif()
if(TARGET ftc-server)
  set_target_properties(ftc-server ftc-bundle PROPERTIES INSTALL_RPATH "")
  install(TARGETS ftc-server ftc-bundle RUNTIME DESTINATION bin COMPONENT server)
endif()

# Maintainer scripts, conffiles and documents, one set per package.
foreach(pkg server device)
  set(UNIT ftc-${pkg}.service)
  set(USER ftc-${pkg})
  if(pkg STREQUAL "server")
    set(DESCRIPTION "FileTransferConfiglet upgrade server")
    set(STATE_DIRS "/var/lib/ftc-server /var/lib/ftc-server/bundle")
    set(STATE_MODE 0750)
  else()
    set(DESCRIPTION "FileTransferConfiglet device agent")
    set(STATE_DIRS "/var/lib/ftc-device /var/lib/ftc-device/metrics")
    set(STATE_MODE 0755)
  endif()
  set(PURGE_DIRS /var/lib/ftc-${pkg})
  foreach(script postinst prerm postrm)
    configure_file(${svc}/debian/${script}.in ${deb}/${pkg}/${script} @ONLY
                   FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                   WORLD_READ WORLD_EXECUTE)
  endforeach()
  file(WRITE ${deb}/${pkg}/conffiles "/etc/ftc/${pkg}.conf\n")
  install(FILES ${svc}/systemd/ftc-${pkg}.service DESTINATION /lib/systemd/system COMPONENT ${pkg})
  install(FILES ${svc}/etc/${pkg}.conf DESTINATION /etc/ftc COMPONENT ${pkg})
  install(FILES ${svc}/debian/copyright DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/ftc-${pkg}
          COMPONENT ${pkg})
  string(TOUPPER ${pkg} PKG)
  set(CPACK_DEBIAN_${PKG}_PACKAGE_CONTROL_EXTRA
      "${deb}/${pkg}/postinst;${deb}/${pkg}/prerm;${deb}/${pkg}/postrm;${deb}/${pkg}/conffiles")
endforeach()

# Debian wants the changelog compressed without a time stamp.
add_custom_command(OUTPUT ${deb}/changelog.gz
                   COMMAND gzip -9nc ${svc}/debian/changelog > ${deb}/changelog.gz
                   DEPENDS ${svc}/debian/changelog VERBATIM)
add_custom_target(ftc_changelog ALL DEPENDS ${deb}/changelog.gz)
foreach(pkg server device)
  install(FILES ${deb}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/ftc-${pkg}
          COMPONENT ${pkg})
endforeach()

if(FTC_MAN)
  find_program(HELP2MAN help2man REQUIRED)
  set(pages "")
  foreach(pair "ftc-server:server:the upgrade server, fleet records and deployments"
               "ftc-bundle:server:prepares a bundle folder for devices"
               "ftc-host:device:the device host, its agent and its operator commands")
    string(REPLACE ":" ";" parts "${pair}")
    list(GET parts 0 program)
    list(GET parts 1 pkg)
    list(GET parts 2 name)
    set(page ${deb}/man/${program}.1)
    add_custom_command(OUTPUT ${page}.gz
                       COMMAND ${HELP2MAN} --no-info --no-discard-stderr --name=${name}
                               --output=${page} $<TARGET_FILE:${program}>
                       COMMAND gzip -9nf ${page}
                       DEPENDS ${program} VERBATIM)
    list(APPEND pages ${page}.gz)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${pkg})
  endforeach()
  add_custom_target(ftc_man ALL DEPENDS ${pages})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL server device)
set(CPACK_PACKAGE_NAME ftc)
set(CPACK_PACKAGE_VERSION ${FTC_VERSION_TEXT})
if(FTC_PACKAGE_RELEASE)
  set(CPACK_PACKAGE_VERSION ${FTC_VERSION_TEXT}+${FTC_PACKAGE_RELEASE})
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "FileTransferConfiglet team <ftc@example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://example.org/ftc)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_SERVER_PACKAGE_NAME ftc-server)
set(CPACK_DEBIAN_DEVICE_PACKAGE_NAME ftc-device)
set(CPACK_DEBIAN_SERVER_PACKAGE_DEPENDS "passwd")
set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS "passwd")
set(CPACK_COMPONENT_SERVER_DESCRIPTION
    "FileTransferConfiglet upgrade server\nServes bundle folders to devices over HTTP, keeps the\nfleet's reports in SQLite or PostgreSQL, hands out deployments in phases and\nshows the fleet page and metrics. Runs as the ftc-server service.")
set(CPACK_COMPONENT_DEVICE_DESCRIPTION
    "FileTransferConfiglet device agent\nThe host that loads the upgrade plug-in, with its platform libraries and the\nmessage-queue library; runs as the ftc-device service, fetching and running\nthe deployments its server hands out.")
include(CPack)
