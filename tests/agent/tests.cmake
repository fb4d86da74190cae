# SPDX-License-Identifier: Apache-2.0
# The serving program and the command: their parts in the process, then the programs themselves on
# a private bus.
if(TARGET sentrel-agent AND TARGET sentrel)
  sentrel_test(WordsTest agent/WordsTest.cpp LIBRARY LABEL unit LIBS sentrel_agent_objects)
  sentrel_test(QuoteTest agent/QuoteTest.cpp ${CMAKE_SOURCE_DIR}/cli/Quote.cpp LIBRARY LABEL unit
    LIBS sentrel_agent_objects)
  target_include_directories(QuoteTest PRIVATE ${CMAKE_SOURCE_DIR}/cli)

  add_library(agent_support STATIC agent/Programs.cpp)
  target_include_directories(agent_support PUBLIC agent)
  target_compile_definitions(agent_support PRIVATE
    "SENTREL_AGENT_PROGRAM=\"$<TARGET_FILE:sentrel-agent>\"" "SENTREL_COMMAND=\"$<TARGET_FILE:sentrel>\"")
  target_link_libraries(agent_support PUBLIC test_support PRIVATE sentrel_warnings)
  add_dependencies(agent_support sentrel-agent sentrel)
  foreach(name AgentTest CliTest)
    sentrel_test(${name} agent/${name}.cpp bus/Listener.cpp LIBRARY LABEL bus LIBS agent_support)
  endforeach()
endif()
