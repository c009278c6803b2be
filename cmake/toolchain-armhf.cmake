# ARMv7 with hardware floating point, Debian's armhf; its time_t has 32 bits.
set(arch armhf)
set(triplet arm-linux-gnueabihf)
set(cpu cortex-a8)
set(time_bits 32)
set(options "-march=armv7-a+fp -mfloat-abi=hard -mthumb")
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
