# SPDX-License-Identifier: Apache-2.0
# Debian's cross compilers for the machine that the including file names: CMAKE_SYSTEM_PROCESSOR,
# `triplet` and the `emulator` that runs its programs. SENTREL_SYSROOT is a folder with the libraries
# of that machine (scripts/cross.sh makes one); without it, the multiarch packages of this system are
# used.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator})

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES SENTREL_SYSROOT)
if(SENTREL_SYSROOT)
  set(CMAKE_SYSROOT ${SENTREL_SYSROOT})
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -L ${SENTREL_SYSROOT})
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${SENTREL_SYSROOT})
endif()
set(ENV{PKG_CONFIG_LIBDIR}
  "${SENTREL_SYSROOT}/usr/lib/${triplet}/pkgconfig:${SENTREL_SYSROOT}/usr/share/pkgconfig")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
