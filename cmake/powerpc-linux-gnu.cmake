# Cross build for the deployed target, 32-bit big-endian PowerPC, with Debian's
# cross compiler; programs run under qemu's user emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc-static -L /usr/powerpc-linux-gnu)

# libsctp for the target is built from source beside the build tree.
set(TOLV_TARGET_ROOT "${CMAKE_CURRENT_LIST_DIR}/../build/ppc-root" CACHE PATH
  "Where libsctp for the target is installed")
set(ENV{PKG_CONFIG_LIBDIR} "${TOLV_TARGET_ROOT}/lib/pkgconfig")

set(CMAKE_FIND_ROOT_PATH /usr/powerpc-linux-gnu "${TOLV_TARGET_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
