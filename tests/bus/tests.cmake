# SPDX-License-Identifier: Apache-2.0
# What needs a bus of its own. Each program holds the listener that fails a test which leaves
# descriptors, threads or children behind.
function(bus_test name)
  cmake_parse_arguments(ARG "" "LABEL" "" ${ARGN})
  if(NOT ARG_LABEL)
    set(ARG_LABEL bus)
  endif()
  sentrel_test(${name} bus/${name}.cpp bus/Listener.cpp LABEL "${ARG_LABEL}"
    ${ARG_UNPARSED_ARGUMENTS})
endfunction()

# Through the shared library, as a stranger would.
bus_test(ApiTest LIBRARY)
bus_test(WireTest LIBRARY)

# Through the objects.
bus_test(ConnectionTest)
bus_test(ExchangeTest LIBS -Wl,--wrap=dbus_connection_send_with_reply_and_block)
bus_test(HarnessTest)
bus_test(MatchTest)
bus_test(ReferenceTest LIBS
  -Wl,--wrap=dbus_bus_get_private -Wl,--wrap=dbus_bus_get_unique_name
  -Wl,--wrap=dbus_bus_release_name -Wl,--wrap=dbus_connection_close
  -Wl,--wrap=dbus_connection_dispatch -Wl,--wrap=dbus_connection_ref
  -Wl,--wrap=dbus_connection_set_dispatch_status_function
  -Wl,--wrap=dbus_connection_set_exit_on_disconnect
  -Wl,--wrap=dbus_connection_set_timeout_functions
  -Wl,--wrap=dbus_connection_set_watch_functions -Wl,--wrap=dbus_connection_unref)
bus_test(BusDispatchTest)
bus_test(DispatcherLoopTest)
bus_test(ProxyTest)
bus_test(AdaptorTest)
bus_test(ServerTest)
bus_test(CredentialsTest)
bus_test(NoBusTest LIBS -Wl,--wrap=dbus_connection_send_with_reply_and_block)
bus_test(ForkTest LIBRARY)
bus_test(SignalsTest LIBRARY)
bus_test(SoakTest LIBRARY TIMEOUT 300)
# One label that both -L bus and -L threads select.
bus_test(ThreadsTest LIBRARY LABEL bus-threads)
