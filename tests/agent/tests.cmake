# SPDX-License-Identifier: Apache-2.0
# The serving program: its rooms in the process, the descriptor and the relay as processes, then the
# program itself on a private bus.
if(TARGET sentrel-agent)
  add_library(agent_rules_support STATIC agent/Denials.cpp agent/Oracle.cpp agent/RuleTexts.cpp)
  target_include_directories(agent_rules_support PUBLIC agent)
  target_link_libraries(agent_rules_support PUBLIC sentrel_agent_rules
    PRIVATE sentrel_warnings)
  foreach(name DecideTest DenialMatrixTest ExamplesTest GrammarTest OperationTest PatternTest
      RuleCheckTest RulesTest TextTest WordsTest)
    sentrel_test(${name} agent/${name}.cpp LIBRARY LABEL agent LIBS agent_rules_support)
  endforeach()
  # With clang++'s sanitizers it works for 40 s.
  sentrel_test(RandomDecideTest agent/RandomDecideTest.cpp LIBRARY LABEL agent TIMEOUT 180
    LIBS agent_rules_support)
  target_compile_definitions(ExamplesTest PRIVATE
    RULE_EXAMPLES="${CMAKE_SOURCE_DIR}/packaging/rules.d-examples")

  # A small program that does as its words say; linked statically, so that its limits are its own,
  # and not instrumented, since the limits that it shows would end it.
  add_executable(stand_in_tool system/StandInTool.cpp)
  target_compile_options(stand_in_tool PRIVATE -fno-sanitize=all)
  target_link_libraries(stand_in_tool PRIVATE sentrel_warnings -static -fno-sanitize=all)
  foreach(name AnswerTest AuditTest DescriptorTest LogQueueTest QuotaTest RelayTest RepliesTest
      TollsTest)
    sentrel_test(${name} agent/${name}.cpp LIBRARY LABEL agent LIBS sentrel_agent_passage)
    target_include_directories(${name} PRIVATE system)
    target_compile_definitions(${name} PRIVATE STAND_IN_TOOL="$<TARGET_FILE:stand_in_tool>")
    add_dependencies(${name} stand_in_tool)
  endforeach()

  foreach(name CallersTest CopyFilterTest RuleLoaderTest WorkQueueTest)
    sentrel_test(${name} agent/${name}.cpp LIBRARY LABEL agent LIBS sentrel_agent_passage)
  endforeach()

  add_library(agent_support STATIC agent/OtherUsers.cpp agent/Programs.cpp)
  target_include_directories(agent_support PUBLIC agent)
  target_compile_definitions(agent_support PRIVATE
    "SENTREL_AGENT_PROGRAM=\"$<TARGET_FILE:sentrel-agent>\"")
  target_link_libraries(agent_support PUBLIC test_support PRIVATE sentrel_warnings)
  add_dependencies(agent_support sentrel-agent)
  foreach(name AgentTest ControlTest FloodTest HostileTest MockTest)
    sentrel_test(${name} agent/${name}.cpp bus/Listener.cpp LIBRARY LABEL agent LIBS agent_support)
  endforeach()

  sentrel_test(DenialAuditTest agent/DenialAuditTest.cpp bus/Listener.cpp LIBRARY LABEL agent
    LIBS agent_support agent_rules_support)

  if(SENTREL_FUZZ AND CMAKE_CXX_COMPILER_ID MATCHES Clang)
    include(fuzz/fuzz.cmake)
  endif()
endif()
