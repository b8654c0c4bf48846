# Debian's SOCI ships no CMake package: Soci::Sqlite and Soci::Postgresql, each with what it needs.
find_path(SOCI_INCLUDE_DIR soci/soci.h REQUIRED)
find_path(POSTGRESQL_CLIENT_INCLUDE_DIR libpq-fe.h PATH_SUFFIXES postgresql REQUIRED)
find_library(POSTGRESQL_CLIENT_LIBRARY pq REQUIRED)
find_library(SOCI_CORE_LIBRARY soci_core REQUIRED)
find_library(SOCI_SQLITE3_LIBRARY soci_sqlite3 REQUIRED)
find_library(SOCI_POSTGRESQL_LIBRARY soci_postgresql REQUIRED)
mark_as_advanced(SOCI_INCLUDE_DIR POSTGRESQL_CLIENT_INCLUDE_DIR POSTGRESQL_CLIENT_LIBRARY
                 SOCI_CORE_LIBRARY SOCI_SQLITE3_LIBRARY SOCI_POSTGRESQL_LIBRARY)

# The headers of the back ends include each other with and without the folder.
function(quillon_add_soci name)
  cmake_parse_arguments(ARG "" "" "INCLUDES;LIBRARIES" ${ARGN})
  set(includes "${SOCI_INCLUDE_DIR}" "${SOCI_INCLUDE_DIR}/soci" ${ARG_INCLUDES})
  add_library(${name} INTERFACE IMPORTED)
  set_target_properties(${name} PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${includes}"
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${includes}"
    INTERFACE_LINK_LIBRARIES "${ARG_LIBRARIES};${SOCI_CORE_LIBRARY}")
  # Its headers use classes whose type information the libraries keep to themselves, and UBSan's check
  # of virtual calls asks for it.
  if(QUILLON_SANITIZE)
    set_target_properties(${name} PROPERTIES INTERFACE_COMPILE_OPTIONS -fno-sanitize=vptr)
  endif()
endfunction()

quillon_add_soci(Soci::Sqlite LIBRARIES "${SOCI_SQLITE3_LIBRARY}")
quillon_add_soci(Soci::Postgresql
  INCLUDES "${POSTGRESQL_CLIENT_INCLUDE_DIR}"
  LIBRARIES "${SOCI_POSTGRESQL_LIBRARY}" "${POSTGRESQL_CLIENT_LIBRARY}")
