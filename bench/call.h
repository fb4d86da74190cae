/* SPDX-License-Identifier: Apache-2.0 */
/*
 * One call, as every peer makes it: over a fresh connection to the bus, ask for the signals of the
 * agent's interface, call CallCommand("sr_mount", text, 0), read the reply "0 7", take the request
 * for signals back, close. Each call_PEER file defines these two; call.c runs them.
 * Any number of threads make calls at once; nothing is kept between calls.
 */
#ifndef SENTREL_BENCH_CALL_H
#define SENTREL_BENCH_CALL_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BENCH_NAME "org.sentrel.sr_agent"
#define BENCH_PATH "/org/sentrel/sr_agent"
#define BENCH_RULE "type='signal',interface='org.sentrel.sr_agent',path='/org/sentrel/sr_agent'"
#define BENCH_MEMBER "CallCommand"
#define BENCH_AGENT "sr_mount"
#define BENCH_REPLY "0 7"
#define BENCH_RESULT 7

extern const char bench_peer[];

/* Ends the program when the answer is not the agent's. `text` ends in NUL after `length` bytes. */
void bench_call(const char* text, size_t length);

#ifdef __cplusplus
}
#endif

#endif
