// SPDX-License-Identifier: Apache-2.0
// The floor of the loop: poll(2) on a standing array and a linear scan of the results.
#include <poll.h>
#include <stdlib.h>

#include "loop.h"
#include "measure.h"

const char loop_peer[] = "poll";
const int loop_step_is_exact = 1;

static struct pollfd* slots;
static nfds_t slot_count;

void loop_open(int count, const int* descriptors) {
    slots = calloc((size_t)count, sizeof(*slots));
    if (slots == NULL) {
        measure_fail("out of memory");
    }
    slot_count = (nfds_t)count;
    for (int i = 0; i < count; ++i) {
        slots[i].fd = descriptors[i];
        slots[i].events = POLLIN;
    }
}

void loop_step(void) {
    (void)poll(slots, slot_count, 10000);
    for (nfds_t i = 0; i < slot_count; ++i) {
        if (slots[i].revents != 0) {
            loop_served(slots[i].fd);
        }
    }
}
