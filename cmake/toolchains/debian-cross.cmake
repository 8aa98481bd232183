# Shared part of the Debian cross toolchain files. The including file sets
# OSTREL_CROSS_TRIPLE (e.g. aarch64-linux-gnu), OSTREL_QEMU (the qemu-user
# binary) and OSTREL_TARGET_ARCH_FLAGS.
#
# Debian's cross compilers carry their sysroot (/usr/<triple>) built in, so no
# --sysroot is passed; the same directory is the root for finding target
# libraries and headers, and the loader root (-L) for qemu.
set(OSTREL_CROSS_ROOT /usr/${OSTREL_CROSS_TRIPLE})

set(CMAKE_C_COMPILER ${OSTREL_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${OSTREL_CROSS_TRIPLE}-g++)
set(CMAKE_AR ${OSTREL_CROSS_TRIPLE}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${OSTREL_CROSS_TRIPLE}-ranlib CACHE FILEPATH "")
set(CMAKE_NM ${OSTREL_CROSS_TRIPLE}-nm CACHE FILEPATH "")
set(CMAKE_C_FLAGS_INIT "${OSTREL_TARGET_ARCH_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${OSTREL_TARGET_ARCH_FLAGS}")

set(CMAKE_FIND_ROOT_PATH ${OSTREL_CROSS_ROOT})
# Target builds of further libraries (zlib for the tests), unpacked from Debian
# packages by scripts/cross.sh. Their shared-library links point at the build
# machine's /lib, so the static archives are linked.
if(OSTREL_CROSS_DEPS_ROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH ${OSTREL_CROSS_DEPS_ROOT})
  set(ZLIB_USE_STATIC_LIBS ON)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

find_program(OSTREL_QEMU_PATH ${OSTREL_QEMU} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${OSTREL_QEMU_PATH} -L ${OSTREL_CROSS_ROOT})
