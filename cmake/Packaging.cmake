# The service as a system service: unit, settings, completion and manual pages, and the Debian
# package built from them by CPack (cpack -G DEB in the build tree).
set(DLM_DIST ${PROJECT_SOURCE_DIR}/dist)
set(DLM_SETTINGS_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/downloadmanager/downloadmanager.ini)
set(DLM_PACKAGE_MAINTAINER "downloadmanager developers <downloadmanager@example.com>"
    CACHE STRING "Maintainer named in the Debian package")

configure_file(${DLM_DIST}/downloadmanager.service.in downloadmanager.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/downloadmanager.service
    DESTINATION lib/systemd/system)
install(FILES ${DLM_DIST}/dlctl.bash-completion RENAME dlctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)

# The settings file goes where GNUInstallDirs puts /etc for the prefix given at install time:
# /etc for /usr (the package, and the path the unit names), <prefix>/etc for any other prefix.
install(CODE "
    set(dlm_etc \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SYSCONFDIR}\")
    if(IS_ABSOLUTE \"${CMAKE_INSTALL_SYSCONFDIR}\")
        set(dlm_etc \"${CMAKE_INSTALL_SYSCONFDIR}\")
    elseif(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
        set(dlm_etc \"/${CMAKE_INSTALL_SYSCONFDIR}\")
    endif()
    file(INSTALL DESTINATION \"\${dlm_etc}/downloadmanager\" TYPE FILE
        FILES \"${DLM_DIST}/downloadmanager.ini\")")

# Debian wants manual pages and the changelog compressed without a time stamp.
configure_file(${DLM_DIST}/debian/changelog.in changelog @ONLY)
set(DLM_GZIPPED)
foreach(source ${DLM_DIST}/dlctl.1 ${DLM_DIST}/downloadmanager.8 ${CMAKE_CURRENT_BINARY_DIR}/changelog)
    get_filename_component(name ${source} NAME)
    add_custom_command(OUTPUT ${name}.gz
        COMMAND gzip -9n -c ${source} > ${name}.gz
        DEPENDS ${source} VERBATIM)
    list(APPEND DLM_GZIPPED ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
endforeach()
add_custom_target(dlm_compressed_docs ALL DEPENDS ${DLM_GZIPPED})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/dlctl.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/downloadmanager.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz ${DLM_DIST}/debian/copyright
    DESTINATION ${CMAKE_INSTALL_DOCDIR})
# Installed binaries need their RUNPATH to Debian's private directory of the Android libraries.
configure_file(${DLM_DIST}/debian/lintian-overrides.in lintian-overrides @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lintian-overrides RENAME downloadmanager
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME downloadmanager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${DLM_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "download service for the device's applications")
set(CPACK_PACKAGE_DESCRIPTION "\
One long-lived service fetches files over HTTP and HTTPS into per-client
directories, keeps every download's state in SQLite so that downloads continue
after a restart, and tells every registered client about every change.

This package holds the service with its systemd unit and settings file, the
operator's command dlctl, and the client library with its headers, CMake
package (DownloadManagerClient) and pkg-config file (downloadmanager-client).")
# Libraries are found by dpkg-shlibdeps; the SQLite driver is a Qt plugin it cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libqt6sql6-sqlite")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/conffiles "${DLM_SETTINGS_FILE}\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/debian/conffiles
    ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers
    ${DLM_DIST}/debian/postinst ${DLM_DIST}/debian/prerm ${DLM_DIST}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
