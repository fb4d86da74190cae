# SPDX-License-Identifier: Apache-2.0
# What needs root: real operations, in a mount namespace of the test's own.
if(TARGET sentrel-agent)
  foreach(name ExecutorTest MountTest)
    sentrel_test(${name} system/${name}.cpp LIBRARY LABEL system LIBS sentrel_agent_run)
    target_compile_definitions(${name} PRIVATE STAND_IN_TOOL="$<TARGET_FILE:stand_in_tool>")
    add_dependencies(${name} stand_in_tool)
  endforeach()
endif()
if(TARGET sentrel-agent AND TARGET sentrel)
  sentrel_test(OperationsTest system/OperationsTest.cpp bus/Listener.cpp LIBRARY LABEL system
    LIBS agent_support cli_support)
endif()
