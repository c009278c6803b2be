# What the ARM toolchain files share. Before they include this one they set `arch`, `triplet`, `options`,
# the compiler options for the target, and `cpu`, an early processor of the kind, on which tests are to run.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

find_program(SQLWRAPPER_CROSS_COMPILER ${triplet}-g++ DOC "The cross compiler")
if(NOT SQLWRAPPER_CROSS_COMPILER)
    message(FATAL_ERROR " No cross compiler ${triplet}-g++: apt-get install g++-${triplet}")
endif()
set(CMAKE_CXX_COMPILER ${SQLWRAPPER_CROSS_COMPILER})

set(SQLWRAPPER_TIME_BITS 32 CACHE STRING "The width of time_t: 32, or 64 as newer distributions have it")
if(SQLWRAPPER_TIME_BITS EQUAL 64)
    string(APPEND options " -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
endif()

# The compiler brings the C and C++ libraries; script/sysroot fetches the rest.
get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${arch} ABSOLUTE)
set(SQLWRAPPER_SYSROOT ${sysroot} CACHE PATH "The folder with the target's libraries")
set(SQLWRAPPER_SYSROOT_COMMAND "run script/sysroot ${arch}")
if(NOT EXISTS ${SQLWRAPPER_SYSROOT}/usr/include/sqlite3.h)
    message(FATAL_ERROR " No SQLite for ${arch} in ${SQLWRAPPER_SYSROOT}: ${SQLWRAPPER_SYSROOT_COMMAND}")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SQLWRAPPER_SYSROOT SQLWRAPPER_TIME_BITS)

# Debug information names the headers as they are on the device. The last option silences GCC's note
# about containers as parameters, which C++ ABI 7.1 changed for everybody.
set(CMAKE_CXX_FLAGS_INIT "${options} -ffile-prefix-map=${SQLWRAPPER_SYSROOT}= -Wno-psabi")

set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
list(APPEND CMAKE_FIND_ROOT_PATH ${SQLWRAPPER_SYSROOT} /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# On the device its libraries are where the loader looks: programs do not carry this folder's name,
# only the linker knows it.
set(library_directory ${SQLWRAPPER_SYSROOT}/usr/lib/${triplet})
set(CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES ${library_directory})
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${SQLWRAPPER_SYSROOT}/usr/include/${triplet})
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${library_directory})

# Runs the target's programs; only tests need it.
find_program(SQLWRAPPER_EMULATOR NAMES qemu-arm qemu-arm-static DOC "The target's emulator")
if(SQLWRAPPER_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR
        ${SQLWRAPPER_EMULATOR} -cpu ${cpu} -L /usr/${triplet}
        -E LD_LIBRARY_PATH=${library_directory})
endif()
