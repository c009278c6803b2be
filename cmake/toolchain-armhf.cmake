# ARMv7 with hardware floating point, Debian's armhf.
set(arch armhf)
set(triplet arm-linux-gnueabihf)
set(cpu cortex-a8)
set(options "-march=armv7-a+fp -mfloat-abi=hard -mthumb")
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
