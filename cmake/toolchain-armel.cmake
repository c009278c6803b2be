# ARMv5TE with floating point in software, Debian's armel.
set(arch armel)
set(triplet arm-linux-gnueabi)
set(cpu arm926)
set(options "-march=armv5te -mfloat-abi=soft -marm")
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
