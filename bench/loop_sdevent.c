// SPDX-License-Identifier: Apache-2.0
// sd-event: one sd_event_run, which serves one source.
#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "loop.h"
#include "measure.h"

const char loop_peer[] = "sd-event";
const int loop_step_is_exact = 0;

static sd_event* loop;

static int serve(sd_event_source* source, int descriptor, uint32_t events, void* data) {
    (void)source;
    (void)events;
    (void)data;
    loop_served(descriptor);
    return 0;
}

void loop_open(int count, const int* descriptors) {
    if (sd_event_new(&loop) < 0) {
        measure_fail("no sd-event");
    }
    for (int i = 0; i < count; ++i) {
        if (sd_event_add_io(loop, NULL, descriptors[i], EPOLLIN, serve, NULL) < 0) {
            measure_fail("a descriptor cannot be watched");
        }
    }
}

void loop_step(void) {
    if (sd_event_run(loop, UINT64_MAX) < 0) {
        measure_fail("sd-event failed");
    }
}
