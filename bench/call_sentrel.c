// SPDX-License-Identifier: Apache-2.0
// The library, through its C interface. Built twice: with the platform log as it is, and with
// dlog_dropped.c, which takes every log line and drops it.
#include <sentrel/SR_API.h>

#include "call.h"
#include "measure.h"

const char bench_peer[] = BENCH_PEER;

void bench_call(const char* text, size_t length) {
    int result = -1;
    if (SR_Mount(text, (unsigned)length, 0, &result) != SR_OK || result != BENCH_RESULT) {
        measure_fail("another answer than the agent's");
    }
}
