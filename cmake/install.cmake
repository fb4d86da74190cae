# SPDX-License-Identifier: Apache-2.0
# What an installation needs to know of its prefix, which `cmake --install --prefix` may give anew.

# install_run_path(TARGET FOLDER): what is installed into FOLDER finds the libraries beside it,
# wherever the prefix is. In /usr the system finds them.
function(install_run_path target folder)
  if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$" OR DEFINED CMAKE_INSTALL_RPATH
      OR IS_ABSOLUTE "${folder}" OR IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    return()
  endif()
  file(RELATIVE_PATH way "/prefix/${folder}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
  string(REGEX REPLACE "/$" "" path "$ORIGIN/${way}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "${path}")
endfunction()

# install_script(FILE [NAME VALUE]...): runs the file at the installation, with these variables set,
# and with the prefix and the folders below it as they are then.
function(install_script file)
  # A prefix may be given relative to where the installation is started.
  set(code "get_filename_component(CMAKE_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\" ABSOLUTE)\n")
  set(names PROJECT_VERSION CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_SBINDIR
    CMAKE_INSTALL_DATADIR SENTREL_AGENT)
  foreach(name IN LISTS names)
    string(APPEND code "set(${name} [==[${${name}}]==])\n")
  endforeach()
  while(ARGN)
    list(POP_FRONT ARGN name value)
    string(APPEND code "set(${name} [==[${value}]==])\n")
  endwhile()
  foreach(folder LIBDIR SBINDIR DATADIR)
    string(APPEND code "cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_${folder} BASE_DIRECTORY "
      "\"\${CMAKE_INSTALL_PREFIX}\" OUTPUT_VARIABLE CMAKE_INSTALL_FULL_${folder})\n")
  endforeach()
  install(CODE "${code}include([==[${file}]==])")
endfunction()

# install_for_prefix(TEMPLATE FOLDER): what the template makes of the prefix.
function(install_for_prefix template folder)
  install_script(${CMAKE_SOURCE_DIR}/cmake/for_prefix.cmake
    template "${template}" folder "${folder}")
endfunction()
