# Finds the SQLite that SQLWRAPPER_SQLITE names:
#   SQLWRAPPER_SQLITE_TARGET             what to link
#   SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY  where its sqlite3.h is
#   SQLWRAPPER_SQLITE_VERSION            the version of that header

# The oldest that the tests have passed with.
set(oldest_sqlite 3.7.7.1)

if(SQLWRAPPER_SQLITE STREQUAL "sqlite3")
    find_package(SQLite3 QUIET)
    if(NOT SQLite3_FOUND)
        set(way "apt-get install libsqlite3-dev")
        if(SQLWRAPPER_SYSROOT_COMMAND)
            set(way ${SQLWRAPPER_SYSROOT_COMMAND}) # the package would be this machine's
        endif()
        message(FATAL_ERROR
            " No SQLite with its headers: ${way}, or add its prefix to CMAKE_PREFIX_PATH")
    endif()
    set(SQLWRAPPER_SQLITE_TARGET SQLite::SQLite3)
    set(SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY ${SQLite3_INCLUDE_DIRS})
elseif(SQLWRAPPER_SQLITE STREQUAL "sqlcipher")
    find_path(SQLWRAPPER_SQLCIPHER_INCLUDE_DIR sqlcipher/sqlite3.h
        DOC "The folder with the folder of SQLCipher's headers")
    find_library(SQLWRAPPER_SQLCIPHER_LIBRARY sqlcipher DOC "The library of SQLCipher")
    if(NOT SQLWRAPPER_SQLCIPHER_INCLUDE_DIR OR NOT SQLWRAPPER_SQLCIPHER_LIBRARY)
        message(FATAL_ERROR
            " No SQLCipher with its headers: apt-get install libsqlcipher-dev, or add its prefix to CMAKE_PREFIX_PATH")
    endif()
    # Not called SQLite::SQLite3: a user may need both, each under its own name.
    set(SQLWRAPPER_SQLITE_TARGET SQLCipher::SQLCipher)
    set(SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY ${SQLWRAPPER_SQLCIPHER_INCLUDE_DIR}/sqlcipher)
    add_library(SQLCipher::SQLCipher UNKNOWN IMPORTED)
    set_target_properties(SQLCipher::SQLCipher PROPERTIES
        IMPORTED_LOCATION ${SQLWRAPPER_SQLCIPHER_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY})
else()
    message(FATAL_ERROR
        " SQLWRAPPER_SQLITE is '${SQLWRAPPER_SQLITE}': set it to sqlite3 or sqlcipher")
endif()

# Read here, since a version may have four numbers, which CMake's own module does not expect.
file(STRINGS ${SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY}/sqlite3.h version_line
    REGEX "^#define SQLITE_VERSION  *\"[0-9.]+\"" LIMIT_COUNT 1)
string(REGEX REPLACE "^.*\"([0-9.]+)\".*$" "\\1" SQLWRAPPER_SQLITE_VERSION "${version_line}")
if(SQLWRAPPER_SQLITE_VERSION VERSION_LESS oldest_sqlite)
    message(FATAL_ERROR
        " SQLite ${SQLWRAPPER_SQLITE_VERSION} in ${SQLWRAPPER_SQLITE_INCLUDE_DIRECTORY} is too old: install ${oldest_sqlite} or later, or add its prefix to CMAKE_PREFIX_PATH")
endif()
