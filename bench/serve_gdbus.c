// SPDX-License-Identifier: Apache-2.0
// The same server on GDBus.
#include <gio/gio.h>

#include "serve.h"

static const gchar description[] =
    "<node><interface name='" BENCH_NAME "'><method name='" BENCH_MEMBER
    "'><arg type='s' direction='in'/><arg type='s' direction='in'/><arg type='i' direction='in'/>"
    "<arg type='s' direction='out'/></method></interface></node>";

static void answer(GDBusConnection* connection, const gchar* sender, const gchar* path,
                   const gchar* interface, const gchar* method, GVariant* arguments,
                   GDBusMethodInvocation* call, gpointer data) {
    (void)connection;
    (void)sender;
    (void)path;
    (void)interface;
    (void)method;
    (void)data;
    const gchar* agent = NULL;
    const gchar* text = NULL;
    gint32 descriptor = 0;
    g_variant_get(arguments, "(&s&si)", &agent, &text, &descriptor);
    g_dbus_method_invocation_return_value(call, g_variant_new("(s)", BENCH_REPLY));
}

static void owned(GDBusConnection* connection, const gchar* name, gpointer data) {
    (void)connection;
    (void)name;
    (void)data;
    serve_ready();
}

static void lost(GDBusConnection* connection, const gchar* name, gpointer data) {
    (void)connection;
    (void)name;
    g_main_loop_quit(data);
}

int main(int argc, char** argv) {
    GError* error = NULL;
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(description, &error);
    GDBusConnection* connection =
        error == NULL ? g_bus_get_sync(G_BUS_TYPE_SYSTEM, NULL, &error) : NULL;
    if (error != NULL) {
        measure_fail(error->message);
    }
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    static const GDBusInterfaceVTable functions = {answer, NULL, NULL, {0}};
    g_dbus_connection_register_object(connection, BENCH_PATH, node->interfaces[0], &functions, NULL,
                                      NULL, &error);
    if (error != NULL) {
        measure_fail(error->message);
    }
    g_bus_own_name_on_connection(connection, serve_name(argc, argv), G_BUS_NAME_OWNER_FLAGS_NONE,
                                 owned, lost, loop, NULL);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    g_dbus_node_info_unref(node);
    g_object_unref(connection);
    return 0;
}
