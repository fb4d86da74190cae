# SPDX-License-Identifier: Apache-2.0
# Runs at the installation: puts into `folder` what `template` makes of the prefix.
cmake_policy(VERSION 3.25)
get_filename_component(name "${template}" NAME_WLE)
if(CMAKE_INSTALL_PREFIX MATCHES "[ \t]")
  message(WARNING "Not installed: ${name}, which cannot name a prefix with blanks in it.")
  return()
endif()
cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
message(STATUS "Installing: $ENV{DESTDIR}${folder}/${name}")
configure_file("${template}" "$ENV{DESTDIR}${folder}/${name}" @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${folder}/${name}")
