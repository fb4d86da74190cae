// SPDX-License-Identifier: Apache-2.0
// The load on the serving peers, plain libdbus, one connection. Workload: COUNT calls to one
// server, of which IN_FLIGHT wait for their answers at any time. Reads lines
// "PEER NAME PROCESS COUNT IN_FLIGHT" and prints for each a line of JSON with the wall time and the
// server's processor time. The server has answered everything when the second reading is taken.
#include <dbus/dbus.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "call.h"
#include "measure.h"

static DBusMessage* make_call(const char* name) {
    const char* agent = BENCH_AGENT;
    const char* text = "-t tmpfs none /run/media/x";
    const dbus_int32_t descriptor = 0;
    DBusMessage* call = dbus_message_new_method_call(name, BENCH_PATH, BENCH_NAME, BENCH_MEMBER);
    if (call == NULL ||
        !dbus_message_append_args(call, DBUS_TYPE_STRING, &agent, DBUS_TYPE_STRING, &text,
                                  DBUS_TYPE_INT32, &descriptor, DBUS_TYPE_INVALID)) {
        measure_fail("out of memory");
    }
    return call;
}

static void send_one(DBusConnection* connection, DBusMessage* call) {
    /* Each needs a serial of its own. */
    DBusMessage* copy = dbus_message_copy(call);
    if (copy == NULL || !dbus_connection_send(connection, copy, NULL)) {
        measure_fail("out of memory");
    }
    dbus_message_unref(copy);
}

/* Whether the message is the answer to a call; anything but a good answer ends the program. */
static int is_answer(DBusMessage* message) {
    const char* text = NULL;
    const int type = dbus_message_get_type(message);
    if (type == DBUS_MESSAGE_TYPE_ERROR) {
        measure_fail(dbus_message_get_error_name(message));
    }
    if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN) {
        return 0;
    }
    if (!dbus_message_get_args(message, NULL, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) ||
        strcmp(text, BENCH_REPLY) != 0) {
        measure_fail("another answer than the server's");
    }
    return 1;
}

static void run(DBusConnection* connection, const char* name, long count, long in_flight) {
    DBusMessage* call = make_call(name);
    long sent = 0;
    long answered = 0;
    for (; sent < in_flight && sent < count; ++sent) {
        send_one(connection, call);
    }
    while (answered < count) {
        DBusMessage* message;
        if (!dbus_connection_read_write(connection, 10000)) {
            measure_fail("the bus is gone");
        }
        while ((message = dbus_connection_pop_message(connection)) != NULL) {
            if (is_answer(message)) {
                ++answered;
                if (sent < count) {
                    send_one(connection, call);
                    ++sent;
                }
            }
            dbus_message_unref(message);
        }
    }
    dbus_message_unref(call);
}

int main(void) {
    DBusError error = DBUS_ERROR_INIT;
    char peer[64];
    char name[128];
    int process = 0;
    long count = 0;
    long in_flight = 0;
    DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, &error);
    if (connection == NULL) {
        measure_fail(error.message);
    }
    while (scanf("%63s %127s %d %ld %ld", peer, name, &process, &count, &in_flight) == 5) {
        run(connection, name, in_flight, in_flight); /* settle */
        const uint64_t cpu_before = measure_cpu_of(process);
        const uint64_t before = measure_now();
        run(connection, name, count, in_flight);
        const uint64_t wall = measure_now() - before;
        const uint64_t cpu = measure_cpu_of(process) - cpu_before;
        printf("{\"peer\":\"%s\",\"calls\":%ld,\"in_flight\":%ld,\"wall_ns\":%" PRIu64
               ",\"server_cpu_ns\":%" PRIu64 "}\n",
               peer, count, in_flight, wall, cpu);
        fflush(stdout);
    }
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    return 0;
}
