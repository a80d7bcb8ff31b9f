# 32-bit ARM (ARMv7, hard float): cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
set(CMAKE_SYSTEM_PROCESSOR arm)
set(VRIX_CROSS_TRIPLE arm-linux-gnueabihf)
set(VRIX_CROSS_ARCH armhf)
set(VRIX_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
