# SPDX-License-Identifier: Apache-2.0
# armhf; see debian.cmake.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
