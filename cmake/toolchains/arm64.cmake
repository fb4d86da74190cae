# SPDX-License-Identifier: Apache-2.0
# Debian's cross compilers for arm64. SENTREL_SYSROOT is a folder with the libraries of that machine
# (scripts/cross.sh makes one); without it, the multiarch packages of this system are used. Programs
# of that machine are run by qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SENTREL_SYSROOT)
if(SENTREL_SYSROOT)
  set(CMAKE_SYSROOT ${SENTREL_SYSROOT})
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${SENTREL_SYSROOT})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${SENTREL_SYSROOT})
endif()
set(ENV{PKG_CONFIG_LIBDIR}
  "${SENTREL_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${SENTREL_SYSROOT}/usr/share/pkgconfig")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
