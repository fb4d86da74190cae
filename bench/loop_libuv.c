// SPDX-License-Identifier: Apache-2.0
// libuv: one uv_run(UV_RUN_ONCE), which serves ready descriptors up to many times.
#include <stdlib.h>
#include <uv.h>

#include "loop.h"
#include "measure.h"

const char loop_peer[] = "libuv";
const int loop_step_is_exact = 0;

struct watch {
    uv_poll_t poll; /* first: libuv hands its address to the handler */
    int descriptor;
};

static void serve(uv_poll_t* handle, int status, int events) {
    (void)status;
    (void)events;
    loop_served(((struct watch*)handle)->descriptor);
}

void loop_open(int count, const int* descriptors) {
    struct watch* watches = calloc((size_t)count, sizeof(*watches));
    if (watches == NULL) {
        measure_fail("out of memory");
    }
    for (int i = 0; i < count; ++i) {
        watches[i].descriptor = descriptors[i];
        if (uv_poll_init(uv_default_loop(), &watches[i].poll, descriptors[i]) != 0 ||
            uv_poll_start(&watches[i].poll, UV_READABLE, serve) != 0) {
            measure_fail("a descriptor cannot be watched");
        }
    }
}

void loop_step(void) {
    uv_run(uv_default_loop(), UV_RUN_ONCE);
}
