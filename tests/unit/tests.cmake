# SPDX-License-Identifier: Apache-2.0
# What needs nothing but the process: no bus, no root. Where libdbus, poll or the clock would answer,
# the test program answers itself.
sentrel_test(LogTest unit/LogTest.cpp LABEL unit)
sentrel_test(StatusTest unit/StatusTest.cpp LABEL unit)
sentrel_test(MessageRecordTest unit/MessageRecordTest.cpp LABEL unit)
sentrel_test(CallbackTest unit/CallbackTest.cpp LABEL unit)
sentrel_test(DBusErrorTest unit/DBusErrorTest.cpp LABEL unit)

# The platform log that the library brings along stands in the program in place of the recorder.
sentrel_test(LogDlogTest unit/LogDlogTest.cpp unit/FakeSyslog.cpp
  ${CMAKE_SOURCE_DIR}/service/src/log/SR_Dlog.cpp LABEL unit)

# A C program, linked like any caller.
add_executable(ApiHeaderTest unit/ApiHeaderTest.c)
set_target_properties(ApiHeaderTest PROPERTIES C_EXTENSIONS OFF)
target_link_libraries(ApiHeaderTest PRIVATE sentrel::client sentrel_warnings)
target_include_directories(ApiHeaderTest PRIVATE ${CMAKE_BINARY_DIR}/include/sentrel)
add_test(NAME ApiHeaderTest.TheHeaderIsC99AndNullArgumentsAreRefused COMMAND ApiHeaderTest)
set_tests_properties(ApiHeaderTest.TheHeaderIsC99AndNullArgumentsAreRefused PROPERTIES
  LABELS unit TIMEOUT 60)

# The loop on a clock and with poll results of the program's own.
sentrel_test(MainLoopTest unit/MainLoopTest.cpp unit/MainLoopRandomTest.cpp unit/FakePoll.cpp
  LABEL unit)

sentrel_test(DBusMessageTest unit/DBusMessageTest.cpp LABEL unit)
sentrel_test(InterfaceTest unit/InterfaceTest.cpp LABEL unit)

# libdbus without a bus, failing on order.
sentrel_test(FailureTest unit/FailureTest.cpp unit/FakeBus.cpp LIBS ${CMAKE_DL_LIBS} LABEL unit)
sentrel_test(DispatcherTest unit/DispatcherTest.cpp unit/FakeBus.cpp unit/FakePoll.cpp
  LIBS ${CMAKE_DL_LIBS} LABEL unit)
sentrel_test(AllocationTest unit/AllocationTest.cpp unit/FakeBus.cpp LIBS ${CMAKE_DL_LIBS}
  LABEL unit)
