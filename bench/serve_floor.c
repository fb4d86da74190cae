// SPDX-License-Identifier: Apache-2.0
// The floor of serving, plain libdbus; also the agent that answers the calls of the call peers.
#include <dbus/dbus.h>

#include "serve.h"

static void check(DBusError* error) {
    if (dbus_error_is_set(error)) {
        measure_fail(error->message);
    }
}

static DBusHandlerResult answer(DBusConnection* connection, DBusMessage* call, void* data) {
    (void)data;
    if (!dbus_message_is_method_call(call, BENCH_NAME, BENCH_MEMBER)) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    const char* agent = NULL;
    const char* text = NULL;
    dbus_int32_t descriptor = 0;
    const char* reply_text = BENCH_REPLY;
    DBusError error = DBUS_ERROR_INIT;
    dbus_message_get_args(call, &error, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING, &text,
                          DBUS_TYPE_INT32, &descriptor, DBUS_TYPE_INVALID);
    check(&error);
    DBusMessage* reply = dbus_message_new_method_return(call);
    if (reply == NULL ||
        !dbus_message_append_args(reply, DBUS_TYPE_STRING, &reply_text, DBUS_TYPE_INVALID) ||
        !dbus_connection_send(connection, reply, NULL)) {
        measure_fail("out of memory");
    }
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int argc, char** argv) {
    const char* name = serve_name(argc, argv);
    DBusError error = DBUS_ERROR_INIT;
    DBusObjectPathVTable functions = {0};
    DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    check(&error);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    functions.message_function = answer;
    dbus_connection_try_register_object_path(connection, BENCH_PATH, &functions, NULL, &error);
    check(&error);
    if (dbus_bus_request_name(connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        measure_fail("the name is taken");
    }
    serve_ready();
    while (dbus_connection_read_write_dispatch(connection, -1)) {
    }
    dbus_connection_unref(connection);
    return 0;
}
