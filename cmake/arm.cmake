# What the ARM toolchain files share; they set `arch` and `triplet` before they include this one.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

find_program(SQLWRAPPER_CROSS_COMPILER ${triplet}-g++ DOC "The cross compiler")
if(NOT SQLWRAPPER_CROSS_COMPILER)
    message(FATAL_ERROR "No cross compiler ${triplet}-g++ was found: apt-get install g++-${triplet}")
endif()
set(CMAKE_CXX_COMPILER ${SQLWRAPPER_CROSS_COMPILER})

# A GCC note about containers as parameters, which C++ ABI 7.1 changed for everybody.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# The compiler brings the C and C++ libraries; script/sysroot fetches the rest.
get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${arch} ABSOLUTE)
set(SQLWRAPPER_SYSROOT ${sysroot} CACHE PATH "The folder with the target's libraries")
if(NOT EXISTS ${SQLWRAPPER_SYSROOT}/usr/include/sqlite3.h)
    message(FATAL_ERROR "No SQLite for ${arch} in ${SQLWRAPPER_SYSROOT}: script/sysroot ${arch}")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SQLWRAPPER_SYSROOT)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_FIND_ROOT_PATH ${SQLWRAPPER_SYSROOT} /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(SQLWRAPPER_EMULATOR NAMES qemu-arm qemu-arm-static DOC "Runs the target's programs")
if(NOT SQLWRAPPER_EMULATOR)
    message(FATAL_ERROR "No emulator qemu-arm was found: apt-get install qemu-user")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${SQLWRAPPER_EMULATOR} -L /usr/${triplet}
    -E LD_LIBRARY_PATH=${SQLWRAPPER_SYSROOT}/usr/lib/${triplet})
