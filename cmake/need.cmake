# SPDX-License-Identifier: Apache-2.0
# need_library(NAME VERSION DEBIAN): finds a library that brings a CMake package of its own. Without
# it, the error says what to install.
function(need_library name version debian)
  find_package(${name} ${version} CONFIG QUIET)
  if(NOT ${name}_FOUND)
    message(FATAL_ERROR
      "${name} ${version} or later is missing. Debian has it in the package ${debian}.")
  endif()
endfunction()
