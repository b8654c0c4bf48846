# What goes where. The components are the Debian packages.
include(CMakePackageConfigHelpers)

set(parts_dir "${CMAKE_INSTALL_LIBEXECDIR}/quillon")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/mailserver-webapi")

# quillon_find_libraries_from(FOLDER TARGET...)
#   makes programs and libraries in FOLDER find ours wherever the tree is put. Under /usr the loader looks
#   by itself.
function(quillon_find_libraries_from folder)
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH way "/prefix/${folder}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
    string(REGEX REPLACE "/$" "" rpath "$ORIGIN/${way}")
    set_target_properties(${ARGN} PROPERTIES INSTALL_RPATH "${rpath}")
  endif()
endfunction()

quillon_find_libraries_from("${CMAKE_INSTALL_LIBDIR}" quillon-platform quillon-quota-postgresql)
quillon_find_libraries_from("${CMAKE_INSTALL_BINDIR}" quillonctl)
quillon_find_libraries_from("${parts_dir}" quillon-webapid-worker)

# A program finds the package's targets under these names.
set_target_properties(platform-interface PROPERTIES EXPORT_NAME platform-interface)
set_target_properties(mailserver-webapi PROPERTIES EXPORT_NAME library)
set_target_properties(quillon-platform PROPERTIES EXPORT_NAME platform)
set_target_properties(mailserver-webapi-on-platform PROPERTIES EXPORT_NAME mailserver-webapi)

install(TARGETS mailserver-webapi EXPORT mailserver-webapi
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT libmailserver-webapi0
    NAMELINK_COMPONENT libmailserver-webapi-dev)
install(TARGETS quillon-platform EXPORT mailserver-webapi
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT quillon-platform
    NAMELINK_COMPONENT libmailserver-webapi-dev)
install(TARGETS platform-interface mailserver-webapi-on-platform EXPORT mailserver-webapi
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
# The package's own WebAPIs, for programs that call them in their own process.
set_target_properties(handlers PROPERTIES EXPORT_NAME handlers)
install(TARGETS handlers EXPORT mailserver-webapi
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT libmailserver-webapi-dev
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
# CMake strips no archives.
install(CODE "
  if(CMAKE_INSTALL_DO_STRIP)
    file(GLOB_RECURSE archives \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/libquillon-handlers.a\")
    execute_process(COMMAND \"${CMAKE_STRIP}\" --strip-debug --remove-section=.comment
      --enable-deterministic-archives \${archives} COMMAND_ERROR_IS_FATAL ANY)
  endif()"
  COMPONENT libmailserver-webapi-dev)
# The platform's library looks for it beside itself.
install(TARGETS quillon-quota-postgresql
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT quillon-quota-postgresql)

install(TARGETS quillonctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT quillon-tools)
# The supervisor looks for the others beside itself, and nobody starts those by hand.
install(TARGETS quillon-webapid quillon-webapid-front quillon-webapid-worker
  RUNTIME DESTINATION "${parts_dir}" COMPONENT quillon-webapid)
file(RELATIVE_PATH way_to_parts "/prefix/${CMAKE_INSTALL_SBINDIR}" "/prefix/${parts_dir}")
file(MAKE_DIRECTORY "${CMAKE_BINARY_DIR}/link")
file(CREATE_LINK "${way_to_parts}/quillon-webapid" "${CMAKE_BINARY_DIR}/link/quillon-webapid" SYMBOLIC)
install(FILES "${CMAKE_BINARY_DIR}/link/quillon-webapid"
  DESTINATION "${CMAKE_INSTALL_SBINDIR}" COMPONENT quillon-webapid)

foreach(headers include platform/include platform/linux/include handlers/include)
  install(DIRECTORY "${PROJECT_SOURCE_DIR}/${headers}/" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT libmailserver-webapi-dev FILES_MATCHING PATTERN "*.h")
endforeach()

install(EXPORT mailserver-webapi NAMESPACE Quillon:: FILE mailserver-webapi-targets.cmake
  DESTINATION "${package_dir}" COMPONENT libmailserver-webapi-dev)
configure_package_config_file(cmake/mailserver-webapi-config.cmake.in
  "${CMAKE_BINARY_DIR}/mailserver-webapi-config.cmake"
  INSTALL_DESTINATION "${package_dir}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${CMAKE_BINARY_DIR}/mailserver-webapi-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_BINARY_DIR}/mailserver-webapi-config.cmake"
              "${CMAKE_BINARY_DIR}/mailserver-webapi-config-version.cmake"
  DESTINATION "${package_dir}" COMPONENT libmailserver-webapi-dev)

file(RELATIVE_PATH way_to_prefix "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/mailserver-webapi.pc.in "${CMAKE_BINARY_DIR}/mailserver-webapi.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/mailserver-webapi.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT libmailserver-webapi-dev)

install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/libmailserver-webapi-dev" COMPONENT libmailserver-webapi-dev)
