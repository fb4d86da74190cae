# SPDX-License-Identifier: Apache-2.0
# What needs root: real operations, in a mount namespace of the test's own.
if(TARGET sentrel-agent)
  foreach(name ExecutorTest MountTest)
    sentrel_test(${name} system/${name}.cpp LIBRARY LABEL system LIBS sentrel_agent_passage)
    target_compile_definitions(${name} PRIVATE STAND_IN_TOOL="$<TARGET_FILE:stand_in_tool>")
    add_dependencies(${name} stand_in_tool)
  endforeach()
endif()
if(TARGET sentrel-agent AND TARGET sentrel)
  sentrel_test(OperationsTest system/OperationsTest.cpp bus/Listener.cpp LIBRARY LABEL system
    LIBS agent_support cli_support)
endif()
if(TARGET sentrel-agent)
  foreach(name AccountsTest AttackTest MomentTest SilentLogTest)
    sentrel_test(${name} system/${name}.cpp bus/Listener.cpp LIBRARY LABEL system
      LIBS agent_support)
  endforeach()
  target_compile_definitions(MomentTest PRIVATE STAND_IN_TOOL="$<TARGET_FILE:stand_in_tool>")
  add_dependencies(MomentTest stand_in_tool)
  add_executable(silent_files support/silent_files.c)
  target_link_libraries(silent_files PRIVATE sentrel_warnings)
  sentrel_test(SilentFilesTest system/SilentFilesTest.cpp bus/Listener.cpp LIBRARY LABEL system
    LIBS agent_support)
  target_compile_definitions(SilentFilesTest PRIVATE SILENT_FILES="$<TARGET_FILE:silent_files>")
  add_dependencies(SilentFilesTest silent_files)
endif()
