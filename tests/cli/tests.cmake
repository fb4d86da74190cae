# SPDX-License-Identifier: Apache-2.0
# The command: its parts in the process, then the program itself on a private bus, with agents that
# answer as they are told.
if(NOT TARGET sentrel)
  return()
endif()
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# The agent's splitter alone, whether the agent is built or not.
set(agent ${CMAKE_SOURCE_DIR}/agent)
sentrel_test(QuoteTest cli/QuoteTest.cpp ${agent}/base/Text.cpp ${agent}/parse/Words.cpp LIBRARY LABEL unit
  LIBS sentrel_cli_objects)
target_include_directories(QuoteTest PRIVATE ${agent})
foreach(name CliForProgramTest CliOutputTest CliTextTest CliToldTest DiagnosisTest SimilarTest)
  sentrel_test(${name} cli/${name}.cpp bus/Listener.cpp LIBRARY LABEL unit
    LIBS sentrel_cli_objects)
endforeach()

add_library(cli_support STATIC cli/Command.cpp cli/FarAgent.cpp)
target_include_directories(cli_support PUBLIC cli)
target_compile_definitions(cli_support PUBLIC "SENTREL_COMMAND=\"$<TARGET_FILE:sentrel>\"")
target_link_libraries(cli_support PUBLIC test_support PRIVATE sentrel_warnings)
add_dependencies(cli_support sentrel)
foreach(name CliTest ControlQuestionsTest DoctorTest)
  sentrel_test(${name} cli/${name}.cpp bus/Listener.cpp LIBRARY LABEL bus LIBS cli_support)
endforeach()
target_compile_definitions(DoctorTest PRIVATE
  "SENTREL_SCRIPTED_AGENT=\"$<TARGET_FILE:scripted_agent>\"")

# Completion.CASE: each case sources the file in a bash of its own.
set(cases ${CMAKE_CURRENT_SOURCE_DIR}/cli/completion_test.py)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${cases})
execute_process(COMMAND ${Python3_EXECUTABLE} -B ${cases} --list
  OUTPUT_VARIABLE names COMMAND_ERROR_IS_FATAL ANY)
foreach(name IN LISTS names)
  add_test(NAME Completion.${name} COMMAND ${Python3_EXECUTABLE} -B ${cases} ${name}
    ${CMAKE_SOURCE_DIR}/packaging/completion/sentrel $<TARGET_FILE:sentrel>)
  set_tests_properties(Completion.${name} PROPERTIES LABELS unit TIMEOUT 60)
endforeach()
