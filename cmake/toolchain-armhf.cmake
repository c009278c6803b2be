# ARMv7 with hardware floating point, Debian's armhf.
set(arch armhf)
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/arm.cmake)
