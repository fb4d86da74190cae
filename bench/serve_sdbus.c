// SPDX-License-Identifier: Apache-2.0
// The same server on sd-bus.
#include <string.h>
#include <systemd/sd-bus.h>

#include "serve.h"

static int check(int code) {
    if (code < 0) {
        measure_fail(strerror(-code));
    }
    return code;
}

static int answer(sd_bus_message* call, void* data, sd_bus_error* error) {
    (void)data;
    (void)error;
    const char* agent = NULL;
    const char* text = NULL;
    int descriptor = 0;
    check(sd_bus_message_read(call, "ssi", &agent, &text, &descriptor));
    return sd_bus_reply_method_return(call, "s", BENCH_REPLY);
}

static const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(BENCH_MEMBER, "ssi", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int main(int argc, char** argv) {
    sd_bus* bus = NULL;
    check(sd_bus_open_system(&bus));
    check(sd_bus_add_object_vtable(bus, NULL, BENCH_PATH, BENCH_NAME, table, NULL));
    check(sd_bus_request_name(bus, serve_name(argc, argv), 0));
    serve_ready();
    for (;;) {
        const int worked = sd_bus_process(bus, NULL);
        if (worked < 0 || (worked == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            break;
        }
    }
    sd_bus_unref(bus);
    return 0;
}
