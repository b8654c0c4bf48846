# Debian's SOCI ships no CMake package: one imported target with both back ends.
find_path(SOCI_INCLUDE_DIR soci/soci.h REQUIRED)
find_path(POSTGRESQL_CLIENT_INCLUDE_DIR libpq-fe.h PATH_SUFFIXES postgresql REQUIRED)
find_library(POSTGRESQL_CLIENT_LIBRARY pq REQUIRED)
find_library(SOCI_CORE_LIBRARY soci_core REQUIRED)
find_library(SOCI_SQLITE3_LIBRARY soci_sqlite3 REQUIRED)
find_library(SOCI_POSTGRESQL_LIBRARY soci_postgresql REQUIRED)
mark_as_advanced(SOCI_INCLUDE_DIR POSTGRESQL_CLIENT_INCLUDE_DIR POSTGRESQL_CLIENT_LIBRARY
                 SOCI_CORE_LIBRARY SOCI_SQLITE3_LIBRARY SOCI_POSTGRESQL_LIBRARY)

add_library(Soci INTERFACE IMPORTED)
set_target_properties(Soci PROPERTIES
  INTERFACE_SYSTEM_INCLUDE_DIRECTORIES
    "${SOCI_INCLUDE_DIR};${SOCI_INCLUDE_DIR}/soci;${POSTGRESQL_CLIENT_INCLUDE_DIR}"
  INTERFACE_INCLUDE_DIRECTORIES
    "${SOCI_INCLUDE_DIR};${SOCI_INCLUDE_DIR}/soci;${POSTGRESQL_CLIENT_INCLUDE_DIR}"
  INTERFACE_LINK_LIBRARIES
    "${SOCI_SQLITE3_LIBRARY};${SOCI_POSTGRESQL_LIBRARY};${SOCI_CORE_LIBRARY};${POSTGRESQL_CLIENT_LIBRARY}")
# Its headers use classes whose type information the libraries keep to themselves, and UBSan's check of
# virtual calls asks for it.
if(QUILLON_SANITIZE)
  set_target_properties(Soci PROPERTIES INTERFACE_COMPILE_OPTIONS -fno-sanitize=vptr)
endif()
