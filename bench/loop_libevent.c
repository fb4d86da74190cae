// SPDX-License-Identifier: Apache-2.0
// libevent: one event_base_loop(EVLOOP_ONCE).
#include <event2/event.h>

#include "loop.h"
#include "measure.h"

const char loop_peer[] = "libevent";
const int loop_step_is_exact = 0;

static struct event_base* base;

static void serve(evutil_socket_t descriptor, short events, void* data) {
    (void)events;
    (void)data;
    loop_served(descriptor);
}

void loop_open(int count, const int* descriptors) {
    base = event_base_new();
    for (int i = 0; i < count; ++i) {
        struct event* event =
            event_new(base, descriptors[i], (short)(EV_READ | EV_PERSIST), serve, NULL);
        if (event == NULL || event_add(event, NULL) != 0) {
            measure_fail("a descriptor cannot be watched");
        }
    }
}

void loop_step(void) {
    event_base_loop(base, EVLOOP_ONCE);
}
