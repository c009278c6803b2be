# ARMv5TE with floating point in software, Debian's armel.
set(arch armel)
set(triplet arm-linux-gnueabi)
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
