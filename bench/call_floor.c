// SPDX-License-Identifier: Apache-2.0
// The floor: the library's own conversation with the bus, on plain libdbus.
#include <dbus/dbus.h>
#include <stdlib.h>
#include <string.h>

#include "call.h"
#include "measure.h"

const char bench_peer[] = "floor";

static void check(DBusError* error) {
    if (dbus_error_is_set(error)) {
        measure_fail(error->message);
    }
}

static DBusMessage* make_call(const char* text) {
    const char* agent = BENCH_AGENT;
    const dbus_int32_t descriptor = 0;
    DBusMessageIter writer;
    DBusMessage* call =
        dbus_message_new_method_call(BENCH_NAME, BENCH_PATH, BENCH_NAME, BENCH_MEMBER);
    if (call == NULL) {
        measure_fail("out of memory");
    }
    dbus_message_iter_init_append(call, &writer);
    dbus_message_iter_append_basic(&writer, DBUS_TYPE_STRING, &agent);
    dbus_message_iter_append_basic(&writer, DBUS_TYPE_STRING, &text);
    dbus_message_iter_append_basic(&writer, DBUS_TYPE_INT32, &descriptor);
    return call;
}

static void check_reply(DBusMessage* reply, DBusError* error) {
    const char* answer = NULL;
    dbus_message_get_args(reply, error, DBUS_TYPE_STRING, &answer, DBUS_TYPE_INVALID);
    check(error);
    char* rest = NULL;
    const long status = strtol(answer, &rest, 10);
    if (status != 0 || strtol(rest, NULL, 10) != BENCH_RESULT) {
        measure_fail("another answer than the agent's");
    }
}

void bench_call(const char* text, size_t length) {
    (void)length;
    DBusError error = DBUS_ERROR_INIT;
    DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    check(&error);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    dbus_bus_add_match(connection, BENCH_RULE, &error);
    check(&error);
    DBusMessage* call = make_call(text);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(connection, call, -1, &error);
    check(&error);
    check_reply(reply, &error);
    dbus_message_unref(reply);
    dbus_message_unref(call);
    dbus_bus_remove_match(connection, BENCH_RULE, &error);
    check(&error);
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}
