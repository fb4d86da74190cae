# SPDX-License-Identifier: Apache-2.0
# What needs nothing but the process: no bus, no root. Where libdbus, poll or the clock would answer,
# the test program answers itself.
# A label of unit-threads is selected by both -L unit and -L threads.
sentrel_test(LogTest unit/LogTest.cpp LABEL unit-threads)
sentrel_test(StatusTest unit/StatusTest.cpp LABEL unit)
sentrel_test(MessageRecordTest unit/MessageRecordTest.cpp LABEL unit)
sentrel_test(CallbackTest unit/CallbackTest.cpp LABEL unit)
sentrel_test(DBusErrorTest unit/DBusErrorTest.cpp LIBS -Wl,--wrap=dbus_error_free
  LABEL unit-threads)

# The platform log that the library brings along stands in the program in place of the recorder.
sentrel_test(LogDlogTest unit/LogDlogTest.cpp unit/FakeSyslog.cpp
  ${CMAKE_SOURCE_DIR}/service/src/log/SR_Dlog.cpp LABEL unit)

# A C program, linked like any caller.
add_executable(ApiHeaderTest unit/ApiHeaderTest.c)
set_target_properties(ApiHeaderTest PROPERTIES C_EXTENSIONS OFF)
target_link_libraries(ApiHeaderTest PRIVATE sentrel::client sentrel_warnings)
target_include_directories(ApiHeaderTest PRIVATE ${CMAKE_BINARY_DIR}/include/sentrel
  ${CMAKE_CURRENT_SOURCE_DIR}/support)
add_test(NAME ApiHeaderTest.TheHeaderIsC99AndNullArgumentsAreRefused COMMAND ApiHeaderTest)
set_tests_properties(ApiHeaderTest.TheHeaderIsC99AndNullArgumentsAreRefused PROPERTIES
  LABELS unit TIMEOUT 60)

# The loop on a clock and with poll results of the program's own.
sentrel_test(MainLoopTest unit/MainLoopTest.cpp unit/FakePoll.cpp LABEL unit-threads)
# Not under the thread sanitizer: its handlers take the loop's two locks in either order, which one
# thread may, and the sanitizer cannot tell that there is only one.
sentrel_test(MainLoopRandomTest unit/MainLoopRandomTest.cpp unit/FakePoll.cpp
  LABEL unit-histories)

sentrel_test(DBusMessageTest unit/DBusMessageTest.cpp LABEL unit-threads)
sentrel_test(InterfaceTest unit/InterfaceTest.cpp LABEL unit)

# libdbus without a bus, failing on order.
sentrel_test(FailureTest unit/FailureTest.cpp unit/FakeBus.cpp
  LIBS ${CMAKE_DL_LIBS}
  -Wl,--wrap=_ZN7sentrel6SR_Log12PrintMessageENS0_11EDebugLevelEPKcS3_iRKNS_10SR_LogTextE
  LABEL unit)
sentrel_test(DispatcherTest unit/DispatcherTest.cpp unit/FakeBus.cpp unit/FakePoll.cpp
  LIBS ${CMAKE_DL_LIBS} -Wl,--wrap=pthread_mutex_lock -Wl,--wrap=pthread_mutex_unlock
  LABEL unit-threads)
sentrel_test(AllocationTest unit/AllocationTest.cpp unit/FakeBus.cpp LIBS ${CMAKE_DL_LIBS}
  LABEL unit)
# Private members by name.
target_include_directories(FailureTest PRIVATE bus)
target_include_directories(DispatcherTest PRIVATE bus)

# The interface above an exchange of the program's own: all of the library but the object that
# holds the exchange.
add_executable(RequestTest unit/RequestTest.cpp
  $<FILTER:$<TARGET_OBJECTS:sentrel_objects>,EXCLUDE,SR_CommunicationClient>)
target_include_directories(RequestTest PRIVATE
  $<TARGET_PROPERTY:sentrel_objects,INTERFACE_INCLUDE_DIRECTORIES>)
target_link_libraries(RequestTest PRIVATE test_support GTest::gtest_main Boost::headers
  PkgConfig::DBUS Threads::Threads sentrel_warnings)
gtest_discover_tests(RequestTest DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST PROPERTIES
  LABELS unit TIMEOUT 60)
