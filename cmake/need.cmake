# SPDX-License-Identifier: Apache-2.0
# need_library(NAME DEBIAN [VERSION]): finds a library that brings a CMake package of its own.
# Without it, the error names Debian's package.
function(need_library name debian)
  find_package(${name} ${ARGV2} CONFIG QUIET)
  if(NOT ${name}_FOUND)
    list(PREPEND ARGN ${name})
    list(JOIN ARGN " " wanted)
    message(FATAL_ERROR "${wanted} is missing; Debian's package of it is ${debian}.")
  endif()
endfunction()
