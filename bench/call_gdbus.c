// SPDX-License-Identifier: Apache-2.0
// The same job on GDBus. Each call has a main context of its own, so that any thread may make it.
#include <gio/gio.h>
#include <stdlib.h>

#include "call.h"
#include "measure.h"

const char bench_peer[] = "GDBus";

static void check(GError* error) {
    if (error != NULL) {
        measure_fail(error->message);
    }
}

static void ignore(GDBusConnection* connection, const gchar* sender, const gchar* path,
                   const gchar* interface, const gchar* signal, GVariant* parameters,
                   gpointer data) {
    (void)connection;
    (void)sender;
    (void)path;
    (void)interface;
    (void)signal;
    (void)parameters;
    (void)data;
}

static GDBusConnection* connect_to_bus(void) {
    GError* error = NULL;
    gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, NULL, &error);
    check(error);
    GDBusConnection* connection =
        g_dbus_connection_new_for_address_sync(address,
                                               G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                   G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                                               NULL, NULL, &error);
    check(error);
    g_free(address);
    return connection;
}

void bench_call(const char* text, size_t length) {
    (void)length;
    GError* error = NULL;
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GDBusConnection* connection = connect_to_bus();
    const guint rule =
        g_dbus_connection_signal_subscribe(connection, NULL, BENCH_NAME, NULL, BENCH_PATH, NULL,
                                           G_DBUS_SIGNAL_FLAGS_NONE, ignore, NULL, NULL);
    GVariant* reply = g_dbus_connection_call_sync(
        connection, BENCH_NAME, BENCH_PATH, BENCH_NAME, BENCH_MEMBER,
        g_variant_new("(ssi)", BENCH_AGENT, text, 0), G_VARIANT_TYPE("(s)"), G_DBUS_CALL_FLAGS_NONE,
        -1, NULL, &error);
    check(error);
    const gchar* answer = NULL;
    g_variant_get(reply, "(&s)", &answer);
    gchar* rest = NULL;
    const glong status = strtol(answer, &rest, 10);
    if (status != 0 || strtol(rest, NULL, 10) != BENCH_RESULT) {
        measure_fail("another answer than the agent's");
    }
    g_variant_unref(reply);
    g_dbus_connection_signal_unsubscribe(connection, rule);
    g_dbus_connection_flush_sync(connection, NULL, &error);
    check(error);
    g_dbus_connection_close_sync(connection, NULL, &error);
    check(error);
    g_object_unref(connection);
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}
