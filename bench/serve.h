/* SPDX-License-Identifier: Apache-2.0 */
/*
 * One server, as every peer makes it: owns the name, prints "ready", and answers each
 * CallCommand(ssi) at BENCH_PATH with the text BENCH_REPLY, after it has read the three arguments.
 * Started with the name as its one argument, on the system bus of its environment; runs until the
 * bus goes away or it is ended. The serve_PEER files are programs of their own. The interface is
 * BENCH_NAME whatever the name, so that all servers can stand on one bus.
 */
#ifndef SENTREL_BENCH_SERVE_H
#define SENTREL_BENCH_SERVE_H

#include <stdio.h>

#include "call.h"
#include "measure.h"

static inline const char* serve_name(int argc, char** argv) {
    if (argc != 2) {
        measure_fail("the bus name is the one argument");
    }
    return argv[1];
}

static inline void serve_ready(void) {
    puts("ready");
    fflush(stdout);
}

#endif
