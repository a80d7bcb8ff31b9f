# 64-bit ARM: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm64.cmake
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(VRIX_CROSS_TRIPLE aarch64-linux-gnu)
set(VRIX_CROSS_ARCH arm64)
set(VRIX_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
