# ARMv5TE with floating point in software, Debian's armel; its time_t has 32 bits.
set(arch armel)
set(triplet arm-linux-gnueabi)
set(cpu arm926)
set(time_bits 32)
set(options "-march=armv5te -mfloat-abi=soft -marm")
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
