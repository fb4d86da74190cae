// SPDX-License-Identifier: Apache-2.0
// The same job on sd-bus.
#include <stdlib.h>
#include <string.h>
#include <systemd/sd-bus.h>

#include "call.h"
#include "measure.h"

const char bench_peer[] = "sd-bus";

static void check(int code) {
    if (code < 0) {
        measure_fail(strerror(-code));
    }
}

static int ignore(sd_bus_message* message, void* data, sd_bus_error* error) {
    (void)message;
    (void)data;
    (void)error;
    return 0;
}

void bench_call(const char* text, size_t length) {
    (void)length;
    sd_bus* bus = NULL;
    sd_bus_slot* rule = NULL;
    sd_bus_message* reply = NULL;
    const char* answer = NULL;
    check(sd_bus_open_system(&bus));
    check(sd_bus_add_match(bus, &rule, BENCH_RULE, ignore, NULL));
    check(sd_bus_call_method(bus, BENCH_NAME, BENCH_PATH, BENCH_NAME, BENCH_MEMBER, NULL, &reply,
                             "ssi", BENCH_AGENT, text, 0));
    check(sd_bus_message_read(reply, "s", &answer));
    char* rest = NULL;
    const long status = strtol(answer, &rest, 10);
    if (status != 0 || strtol(rest, NULL, 10) != BENCH_RESULT) {
        measure_fail("another answer than the agent's");
    }
    sd_bus_message_unref(reply);
    sd_bus_slot_unref(rule);
    sd_bus_flush_close_unref(bus);
}
