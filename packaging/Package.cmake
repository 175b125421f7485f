# The Debian package (make package, or cpack -G DEB in a build directory):
# the daemon, the tool, their manual pages, completions, units, the sysusers
# entry and the documentation. The libraries' headers and archives
# (component Development) are for builders and stay out of it.
set(TARSKEL_DEBIAN_MAINTAINER "Tarskel developers <tarskel@hollowick.net>"
    CACHE STRING "The Debian package's maintainer")

# Only the package carries the Debian changelog and copyright, under the
# package's own documentation directory; a plain cmake --install does not.
set(_debian_docs ${CMAKE_CURRENT_BINARY_DIR}/debian)
add_custom_command(
  OUTPUT ${_debian_docs}/changelog.Debian.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${_debian_docs}
  COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog > ${_debian_docs}/changelog.Debian.gz
  DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog
  VERBATIM)
add_custom_target(tarskel-debian-docs ALL DEPENDS ${_debian_docs}/changelog.Debian.gz)
install(FILES ${_debian_docs}/changelog.Debian.gz debian/copyright
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/tarskel COMPONENT DebianPackage EXCLUDE_FROM_ALL)

foreach(script postinst prerm postrm)
  configure_file(debian/${script}.in ${_debian_docs}/${script} @ONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                  WORLD_READ WORLD_EXECUTE)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarskel)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Unspecified DebianPackage)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${TARSKEL_DEBIAN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# systemd-sysusers makes the socket's group at install.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "root daemon of privileged operations for signed services")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "${CPACK_PACKAGE_DESCRIPTION_SUMMARY}
 tarskeld offers the platform's unprivileged processes a closed catalogue of
 five operations over a Unix socket, judges each request by its sender, a
 grant and an argument schema, and records it in a hash-chained audit log.
 .
 The tarskel tool works with the daemon, its audit chain, JSON documents,
 schemas, versions, service manifests and vendor-sealed trees.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${_debian_docs}/postinst ${_debian_docs}/prerm
                                       ${_debian_docs}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
