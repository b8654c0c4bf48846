# The Debian packages: cpack in a build whose prefix is /usr (scripts/package).
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillon)
set(CPACK_PACKAGE_CONTACT "Quillon mail server <packages@quillon.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # every package has one of its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Ours are found here; that one package needs another of the same version is said below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
  "${PROJECT_BINARY_DIR}/lib-webapi" "${PROJECT_BINARY_DIR}/platform/linux")
set(CPACK_COMPONENTS_ALL)

# What Debian wants of every package: a changelog and who has the rights.
set(changelog "${PROJECT_BINARY_DIR}/changelog")
configure_file(packaging/debian/changelog.in "${changelog}" @ONLY)
add_custom_command(OUTPUT "${changelog}.gz" COMMAND gzip -9nkf "${changelog}"
  DEPENDS "${changelog}" VERBATIM)
add_custom_target(debian-changelog ALL DEPENDS "${changelog}.gz")

# quillon_package(NAME SECTION SUMMARY DESCRIPTION
#                 [DEPENDS …] [RECOMMENDS …] [SUGGESTS …] [CONTROL FILE…])
#   a package of the component of that name; the dependencies on what the binaries need come by themselves.
#   packaging/debian/NAME may have its lintian overrides.
function(quillon_package name section summary description)
  cmake_parse_arguments(ARG "" "" "DEPENDS;RECOMMENDS;SUGGESTS;CONTROL" ${ARGN})
  string(TOUPPER "${name}" component)
  set(prefix "CPACK_DEBIAN_${component}_PACKAGE")
  foreach(field DEPENDS RECOMMENDS SUGGESTS)
    string(REPLACE ";" ", " list "${ARG_${field}}")
    string(REPLACE "=VERSION" "(= ${PROJECT_VERSION})" list "${list}")
    set(${prefix}_${field} "${list}" PARENT_SCOPE)
  endforeach()
  list(TRANSFORM ARG_CONTROL PREPEND "${PROJECT_SOURCE_DIR}/packaging/debian/${name}/")
  set(${prefix}_CONTROL_EXTRA "${ARG_CONTROL}" PARENT_SCOPE)
  set(${prefix}_NAME "${name}" PARENT_SCOPE)
  set(${prefix}_SECTION "${section}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${component}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} "${name}" PARENT_SCOPE)

  install(FILES "${changelog}.gz" "${PROJECT_SOURCE_DIR}/packaging/debian/copyright"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${name}" COMPONENT "${name}")
  set(overrides "${PROJECT_SOURCE_DIR}/packaging/debian/${name}/lintian-overrides")
  if(EXISTS "${overrides}")
    install(FILES "${overrides}" RENAME "${name}"
      DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" COMPONENT "${name}")
  endif()
endfunction()

quillon_package(libmailserver-webapi0 libs
  "mail administration library of the Quillon mail server"
  "Quota, usage and storage of mail users and groups, ownerless mail, and\nWebAPIs of other hosts."
  RECOMMENDS "quillon-platform =VERSION"
  CONTROL triggers)
quillon_package(libmailserver-webapi-dev libdevel
  "mail administration library of the Quillon mail server, for developers"
  "Headers, files for CMake and pkg-config, and an example of a WebAPI of\none's own."
  DEPENDS "libmailserver-webapi0 =VERSION" "quillon-platform =VERSION" libjsoncpp-dev)
quillon_package(quillon-platform libs
  "Quillon mail server on a plain Linux host"
  "Accounts, mail directories, quota and usage stores for the library, and\nits configuration."
  DEPENDS "libmailserver-webapi0 =VERSION"
  SUGGESTS redis-server quillon-quota-postgresql
  CONTROL conffiles postinst postrm triggers)
quillon_package(quillon-quota-postgresql libs
  "Quillon mail server: quotas in PostgreSQL"
  "The module for hosts whose quota store is a PostgreSQL server."
  DEPENDS "quillon-platform =VERSION")
quillon_package(quillon-tools admin
  "Quillon mail server: command line"
  "quillonctl shows and sets quotas, counts and removes mail, on this host or\nanother of the cluster."
  DEPENDS "quillon-platform =VERSION"
  CONTROL postinst prerm postrm)
quillon_package(quillon-webapid admin
  "Quillon mail server: web server of a cluster host"
  "Lets other hosts and HTTP clients call the WebAPIs of this one, over TLS."
  DEPENDS "quillon-platform =VERSION" "systemd | systemd-standalone-sysusers | systemd-sysusers" procps
  RECOMMENDS quillon-tools
  CONTROL postinst prerm postrm)
include(CPack)
