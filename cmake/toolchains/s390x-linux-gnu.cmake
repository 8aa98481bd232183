# Cross build for IBM Z (s390x), a big-endian 64-bit Linux target, with
# Debian's g++-s390x-linux-gnu. Test programs run under qemu-s390x from
# qemu-user, so the suite runs with the host byte order big-endian.
#
#   cmake -S . -B build-s390x -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/s390x-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(OSTREL_CROSS_TRIPLE s390x-linux-gnu)
set(OSTREL_TARGET_ARCH_FLAGS "" CACHE STRING "Instruction-set flags for the s390x target")
set(OSTREL_QEMU qemu-s390x)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
