# SPDX-License-Identifier: Apache-2.0
# What needs root: real operations, in a mount namespace of the test's own.
if(TARGET sentrel-agent AND TARGET sentrel)
  sentrel_test(OperationsTest system/OperationsTest.cpp bus/Listener.cpp LIBRARY LABEL system
    LIBS agent_support)
endif()
