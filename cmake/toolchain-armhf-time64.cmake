# ARMv7 with hardware floating point and the time_t of 64 bits that newer distributions choose.
set(arch armhf)
set(triplet arm-linux-gnueabihf)
set(cpu cortex-a8)
set(time_bits 64)
set(options "-march=armv7-a+fp -mfloat-abi=hard -mthumb -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64")
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
