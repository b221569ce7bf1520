# The service as a system service: unit, settings, completion and manual pages, and the Debian
# packages built from them by CPack (cpack -G DEB in the build tree), one per install component:
# downloadmanager (the service, dlctl and the rest of this file), libdownloadmanager-client0 (the
# client library) and libdownloadmanager-client-dev (its headers, CMake package and .pc file).
set(DLM_DIST ${PROJECT_SOURCE_DIR}/dist)
set(DLM_SETTINGS_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/downloadmanager/downloadmanager.ini)
set(DLM_PACKAGE_MAINTAINER "downloadmanager developers <downloadmanager@example.com>"
    CACHE STRING "Maintainer named in the Debian package")

configure_file(${DLM_DIST}/downloadmanager.service.in downloadmanager.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/downloadmanager.service
    DESTINATION lib/systemd/system)
install(FILES ${DLM_DIST}/dlctl.bash-completion RENAME dlctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
# Clients built when the sockets were in /run/binder find the service through a link there.
install(FILES ${DLM_DIST}/downloadmanager.tmpfiles RENAME downloadmanager.conf
    DESTINATION lib/tmpfiles.d)

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

set(DLM_PACKAGES downloadmanager libdownloadmanager-client0 libdownloadmanager-client-dev)
foreach(package ${DLM_PACKAGES})
    # Every package carries the changelog and copyright in its own documentation directory.
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz ${DLM_DIST}/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${package})
endforeach()
# The service and the library carry a RUNPATH to Debian's private directory of the Android
# libraries (see lintian-overrides.in).
foreach(package downloadmanager libdownloadmanager-client0)
    set(DLM_LINTIAN_PACKAGE ${package})
    configure_file(${DLM_DIST}/debian/lintian-overrides.in debian/${package}.lintian-overrides @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/${package}.lintian-overrides RENAME ${package}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${package})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME downloadmanager)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${DLM_PACKAGE_MAINTAINER})
# Each package's description has its own first line (the summary).
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${DLM_PACKAGES})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE downloadmanager)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Libraries are found by dpkg-shlibdeps; the SQLite driver is a Qt plugin it cannot see.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DOWNLOADMANAGER_PACKAGE_NAME downloadmanager)
set(CPACK_DEBIAN_DOWNLOADMANAGER_PACKAGE_SECTION net)
set(CPACK_DEBIAN_DOWNLOADMANAGER_PACKAGE_DEPENDS "libqt6sql6-sqlite")
set(CPACK_DEBIAN_DOWNLOADMANAGER_DESCRIPTION "download service for the device's applications
One long-lived service fetches files over HTTP and HTTPS into per-client
directories, keeps every download's state in SQLite so that downloads continue
after a restart, and tells every registered client about every change.

This package holds the service with its systemd unit and settings file, and
the operator's command dlctl.")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/conffiles "${DLM_SETTINGS_FILE}\n")
set(CPACK_DEBIAN_DOWNLOADMANAGER_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/debian/conffiles
    ${DLM_DIST}/debian/postinst ${DLM_DIST}/debian/prerm ${DLM_DIST}/debian/postrm)

set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT0_PACKAGE_NAME libdownloadmanager-client0)
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT0_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT0_DESCRIPTION "client library of the download service
Applications link this library to reach the download service (package
downloadmanager) over its IPC interface: it holds the interface and the IPC
runtime it needs.")
# A shlibs file and the ldconfig trigger come with the library; its Depends are found at cpack
# time (cmake/CPackLibraryDepends.cmake.in).
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT0_PACKAGE_SHLIBDEPS OFF)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs
    "libdownloadmanager-client 0 libdownloadmanager-client0 (>= ${PROJECT_VERSION})\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT0_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_BINARY_DIR}/debian/shlibs ${CMAKE_CURRENT_BINARY_DIR}/debian/triggers)
file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/CPackLibraryDepends.cmake
    INPUT ${PROJECT_SOURCE_DIR}/cmake/CPackLibraryDepends.cmake.in)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_BINARY_DIR}/CPackLibraryDepends.cmake)

# Its headers include libutils' and liblog's, and its CMake package finds both libraries.
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT-DEV_PACKAGE_NAME libdownloadmanager-client-dev)
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT-DEV_PACKAGE_DEPENDS
    "libdownloadmanager-client0 (= ${PROJECT_VERSION}), android-libutils-dev, android-liblog-dev")
set(CPACK_DEBIAN_LIBDOWNLOADMANAGER-CLIENT-DEV_DESCRIPTION "development files of the download service's client library
Headers (the IPC interface IDLService, IDLClient and IDownload and the IPC
runtime's binder/ headers), the CMake package DownloadManagerClient and the
pkg-config file downloadmanager-client for building applications that use the
download service.")
include(CPack)
