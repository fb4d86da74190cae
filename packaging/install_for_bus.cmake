# SPDX-License-Identifier: Apache-2.0
# Runs at the installation: the policy and the activation go where the bus reads them. Who may not
# write there, as with a prefix in a home, gets them below the prefix; left_to_do.cmake says so.
cmake_policy(VERSION 3.25)
cmake_path(ABSOLUTE_PATH dbus_datadir BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
set(sentrel_bus_folder "${dbus_datadir}/dbus-1")
set(sentrel_bus_wanted "${sentrel_bus_folder}")
if("$ENV{DESTDIR}" STREQUAL "")
  set(above "${sentrel_bus_folder}/system.d")
  while(NOT EXISTS "${above}")
    cmake_path(GET above PARENT_PATH above)
  endwhile()
  execute_process(COMMAND test -w "${above}" RESULT_VARIABLE refused)
  if(refused)
    set(sentrel_bus_folder "${CMAKE_INSTALL_FULL_DATADIR}/dbus-1")
  endif()
endif()
file(INSTALL "${packaging}/org.sentrel.sr_agent.conf"
  DESTINATION "${sentrel_bus_folder}/system.d")
set(template "${packaging}/org.sentrel.sr_agent.service.in")
set(folder "${sentrel_bus_folder}/system-services")
include("${for_prefix}")
