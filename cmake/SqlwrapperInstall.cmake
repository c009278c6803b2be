# What a user finds the installed libraries by, the CMake package and the pkg-config files, and what
# gdb shows their objects by. They name places relative to their own, so that an installation can be
# moved.

include(CMakePackageConfigHelpers)
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/sqlwrapper)
configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/sqlwrapperConfig.cmake.in
    ${PROJECT_BINARY_DIR}/sqlwrapperConfig.cmake
    INSTALL_DESTINATION ${package_directory})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/sqlwrapperConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/sqlwrapperConfig.cmake
    ${PROJECT_BINARY_DIR}/sqlwrapperConfigVersion.cmake
    DESTINATION ${package_directory} COMPONENT development)

cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
    OUTPUT_VARIABLE prefix_from_pkgconfig)
if(BUILD_SHARED_LIBS)
    set(pkgconfig_private .private)
else()
    set(pkgconfig_libs " -ltrace -lframework") # in one line: not every pkg-config takes a second one
endif()

# install_sql_library(<name>): What add_sql_library() has made. Its targets have a file of their own, since it
# may be in a package of its own.
function(install_sql_library name)
    install(TARGETS ${name} EXPORT ${name}
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE COMPONENT development)
    install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sqlwrapper
        COMPONENT development FILES_MATCHING PATTERN "*.h")
    install(EXPORT ${name}
        FILE ${name}Targets.cmake NAMESPACE sqlwrapper:: DESTINATION ${package_directory}
        COMPONENT development)

    get_target_property(version ${name} VERSION)
    if(SQLWRAPPER_HAS_WIDENED_TIME)
        set(pkgconfig_definitions " -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

    # gdb looks for it among its own files in /usr, by the library's place, and beside the library, with
    # which it can be moved.
    if(BUILD_SHARED_LIBS)
        install(CODE "
            set(folder \"${CMAKE_INSTALL_LIBDIR}\")
            if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
                set(folder \"${CMAKE_INSTALL_DATADIR}/gdb/auto-load/usr/${CMAKE_INSTALL_LIBDIR}\")
            endif()
            file(INSTALL \"${CMAKE_CURRENT_SOURCE_DIR}/gdb/${name}-gdb.py\"
                DESTINATION \"\${CMAKE_INSTALL_PREFIX}/\${folder}\"
                RENAME \"lib${name}.so.${version}-gdb.py\")"
            COMPONENT development)
    endif()
endfunction()
