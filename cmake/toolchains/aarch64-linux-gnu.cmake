# Cross build for 64-bit Arm Linux with Debian's g++-aarch64-linux-gnu.
# Test programs (GoogleTest discovery at build time and ctest) run under
# qemu-aarch64 from qemu-user, with the cross libraries as the loader's root.
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
#
# OSTREL_TARGET_ARCH_FLAGS picks the instruction set; the default adds the
# CRC32 extension, which every ARMv8.1 core has and most ARMv8.0 cores too.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(OSTREL_CROSS_TRIPLE aarch64-linux-gnu)
set(OSTREL_TARGET_ARCH_FLAGS "-march=armv8-a+crc" CACHE STRING "Instruction-set flags for the AArch64 target")
set(OSTREL_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
