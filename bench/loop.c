// SPDX-License-Identifier: Apache-2.0
// Measures one iteration of a peer's loop (loop.h). Workloads: WATCHED eventfds, of which READY are
// ready: the first, the last or all; or all, watched in no order of their numbers (mixed). (With
// the first ready poll(2) does not put itself on the wait queues of the rest, with the last ready
// it does.) Ready ones stay ready, so that nothing but the loop is measured. An iteration is what
// serves every ready descriptor once; a loop whose step serves fewer or more is run until READY
// handlers have run, and the time is divided by what was served.
//
//   --watched N    (16)     --ready first|last|all|mixed (all)
//   --rounds                 reads iteration counts, one a line, and makes a round of each
//   --iterations N (1000)   without --rounds
//
// Each round prints one line of JSON: count, median, spread, minimum, maximum of one iteration's
// time, each sample being a batch of iterations.
#include "loop.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>

#include "measure.h"

static long served;
static int first_ready;
static int last_ready;

void loop_served(int descriptor) {
    if (descriptor < first_ready || descriptor > last_ready) {
        measure_fail("a descriptor was served that is not ready");
    }
    ++served;
}

/* Eventfds with ascending numbers, so that "ready" can be told from the number. */
static int* make_descriptors(int watched, int first, int last) {
    const struct rlimit limit = {65536, 65536};
    struct rlimit now;
    if (getrlimit(RLIMIT_NOFILE, &now) != 0 ||
        (now.rlim_cur < (rlim_t)watched + 64 && setrlimit(RLIMIT_NOFILE, &limit) != 0)) {
        measure_fail("too few descriptors are allowed");
    }
    int* descriptors = calloc((size_t)watched, sizeof(*descriptors));
    if (descriptors == NULL) {
        measure_fail("out of memory");
    }
    for (int i = 0; i < watched; ++i) {
        descriptors[i] = eventfd(i >= first && i <= last ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (descriptors[i] < 0 || (i > 0 && descriptors[i] < descriptors[i - 1])) {
            measure_fail("no eventfd");
        }
    }
    first_ready = descriptors[first];
    last_ready = descriptors[last];
    return descriptors;
}

/* The same order in every run, and none: a descriptor of a program that has run for long is any. */
static void shuffle(int* descriptors, int count) {
    uint32_t state = 1;
    for (int i = count - 1; i > 0; --i) {
        state = state * 1664525U + 1013904223U;
        const int other = (int)((state >> 8) % (uint32_t)(i + 1));
        const int kept = descriptors[i];
        descriptors[i] = descriptors[other];
        descriptors[other] = kept;
    }
}

/* Iterates about `iterations` times; nanoseconds for one. */
static uint64_t batch(long iterations, int ready) {
    served = 0;
    long steps = 0;
    const uint64_t before = measure_now();
    while (served < iterations * ready) {
        loop_step();
        if (++steps > iterations * ready * 2 + 64) {
            measure_fail("the loop does not serve what is ready");
        }
    }
    const uint64_t time = measure_now() - before;
    if (loop_step_is_exact && (steps != iterations || served != iterations * ready)) {
        measure_fail("the loop does not serve every ready descriptor once");
    }
    return time * (uint64_t)ready / (uint64_t)served;
}

static void round_of(long iterations, int watched, int ready) {
    enum { BATCHES = 10 };
    uint64_t samples[BATCHES];
    const int batches = iterations < BATCHES ? (int)iterations : BATCHES;
    const long each = iterations / batches;
    for (int i = 0; i < batches; ++i) {
        samples[i] = batch(each, ready);
    }
    const struct statistics statistics = measure_statistics(samples, (size_t)batches);
    printf("{\"peer\":\"%s\",\"watched\":%d,\"ready\":%d,\"iterations\":%ld,", loop_peer, watched,
           ready, each * batches);
    measure_print(&statistics);
    puts("}");
    fflush(stdout);
}

int main(int argc, char** argv) {
    const int watched = (int)measure_option(argc, argv, "--watched", 16);
    const char* which = measure_text_option(argc, argv, "--ready", "all");
    const int first = strcmp(which, "last") == 0 ? watched - 1 : 0;
    const int last = strcmp(which, "first") == 0 ? 0 : watched - 1;
    const int ready = last - first + 1;
    long iterations = measure_option(argc, argv, "--iterations", 1000);
    if (watched < 1 || iterations < 1) {
        measure_fail("at least one descriptor and one iteration");
    }
    int* descriptors = make_descriptors(watched, first, last);
    if (strcmp(which, "mixed") == 0) {
        shuffle(descriptors, watched);
    }
    loop_open(watched, descriptors);
    (void)batch(1, ready); /* settle */
    if (!measure_flag(argc, argv, "--rounds")) {
        round_of(iterations, watched, ready);
        return 0;
    }
    while (scanf("%ld", &iterations) == 1 && iterations > 0) {
        round_of(iterations, watched, ready);
    }
    return 0;
}
