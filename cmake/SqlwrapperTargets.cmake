# What the project's own targets are built with, linked privately, so that none of it reaches a user, and
# how its libraries are built.

add_library(sqlwrapper_build INTERFACE)

# The warnings are the project's own; a user who adds it as a subdirectory has theirs.
if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(sqlwrapper_build INTERFACE
        -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wformat=2
        -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
        $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>)
endif()

# The same results from any folder. Debug builds keep their paths, for debuggers and coverage.
target_compile_options(sqlwrapper_build INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>
    $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=.>)

if(SQLWRAPPER_SANITIZE STREQUAL "TRAP")
    # No library of the sanitizer's to link: undefined behaviour ends the program by a signal.
    target_compile_options(sqlwrapper_build INTERFACE
        -fsanitize=undefined -fsanitize-undefined-trap-on-error -fno-omit-frame-pointer)
elseif(SQLWRAPPER_SANITIZE)
    set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
        target_link_libraries(sqlwrapper_build INTERFACE atomic) # the sanitizers' own, before ARMv7
        # An exception leaves the marks of the stack frames that it passes, which later count as
        # errors; and functions in Thumb code have odd addresses.
        list(APPEND sanitizers --param=asan-stack=0 -marm)
    endif()
    target_compile_options(sqlwrapper_build INTERFACE ${sanitizers})
    target_link_options(sqlwrapper_build INTERFACE ${sanitizers})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND BUILD_SHARED_LIBS)
        # Clang puts the sanitizers into the program alone, where the linker of a library misses them.
        execute_process(
            COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
            OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
        get_filename_component(runtime_directory ${runtime} DIRECTORY)
        target_link_options(sqlwrapper_build INTERFACE
            -shared-libsan LINKER:-rpath,${runtime_directory})
    endif()
    if(CMAKE_CROSSCOMPILING_EMULATOR)
        # Looking for leaks takes tracing the program, which an emulated one cannot be. Memory given back
        # is soon used again, since the emulator has addresses that the sanitizer does not know.
        list(PREPEND CMAKE_CROSSCOMPILING_EMULATOR
            /usr/bin/env ASAN_OPTIONS=detect_leaks=0:quarantine_size_mb=16)
    endif()
endif()

if(SQLWRAPPER_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR
            " The fuzzer is clang's: apt-get install clang libclang-rt-14-dev, and configure with the preset fuzz")
    endif()
    target_compile_options(sqlwrapper_build INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(SQLWRAPPER_COVERAGE)
    target_compile_options(sqlwrapper_build INTERFACE --coverage -O0)
    target_link_options(sqlwrapper_build INTERFACE --coverage)
endif()

# add_sql_library(<name> <version> <sources>...): sqlwrapper::<name>, of the headers in include/ and the
# sources, which exports what <name>.map lists.
function(add_sql_library name version)
    add_library(${name} ${ARGN})
    add_library(sqlwrapper::${name} ALIAS ${name})
    target_include_directories(${name} PUBLIC
        $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/sqlwrapper>)
    target_compile_features(${name} PRIVATE cxx_std_17)
    target_compile_definitions(${name} PRIVATE SQL_SOURCE_FOLDER="components/sql/${name}/src/")
    target_link_libraries(${name} PRIVATE
        ${SQLWRAPPER_SQLITE_TARGET} platform::trace platform::framework
        $<BUILD_INTERFACE:sqltrace> $<BUILD_INTERFACE:sqlwrapper_build>)
    string(REGEX MATCH "^[0-9]+" major ${version})
    set_target_properties(${name} PROPERTIES
        VERSION ${version}
        SOVERSION ${major}
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        BUILD_RPATH_USE_ORIGIN ON)
    # Programs with exceptions and without link with either kind; the interface is the same. Nobody
    # replaces a function of the library for the library's own calls, which then are direct: less code,
    # fewer relocations, and no table of them to fill at start.
    target_compile_options(${name} PRIVATE
        $<$<NOT:$<BOOL:${SQLWRAPPER_EXCEPTIONS}>>:-fno-exceptions;-fno-rtti>
        -fno-semantic-interposition -ffunction-sections -fdata-sections)
    if(BUILD_SHARED_LIBS)
        # Of the platform's libraries only those that are used, which not every compiler sees to.
        set(map ${CMAKE_CURRENT_SOURCE_DIR}/${name}.map)
        target_link_options(${name} PRIVATE
            LINKER:--version-script=${map} LINKER:--no-undefined LINKER:-Bsymbolic-functions
            LINKER:--gc-sections LINKER:--as-needed)
        set_target_properties(${name} PROPERTIES LINK_DEPENDS ${map})
        # gdb loads it with the library, beside which it looks for a file of this name.
        file(GENERATE OUTPUT $<TARGET_FILE:${name}>-gdb.py INPUT gdb/${name}-gdb.py)
    endif()
endfunction()
