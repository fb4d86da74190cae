/* SPDX-License-Identifier: Apache-2.0 */
/*
 * One event loop, as every peer makes it: watches `count` descriptors for reading with one handler,
 * which calls loop_served() and leaves the descriptor ready. Each loop_PEER file defines these;
 * loop.c runs them on one thread.
 */
#ifndef SENTREL_BENCH_LOOP_H
#define SENTREL_BENCH_LOOP_H

#ifdef __cplusplus
extern "C" {
#endif

extern const char loop_peer[];
/* Whether one step serves every ready descriptor exactly once; otherwise steps are counted by what
 * they served. */
extern const int loop_step_is_exact;

void loop_open(int count, const int* descriptors);
/* One step; something is ready. */
void loop_step(void);

/* Counts. `descriptor` must be one that is ready. */
void loop_served(int descriptor);

#ifdef __cplusplus
}
#endif

#endif
