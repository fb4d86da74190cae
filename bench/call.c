// SPDX-License-Identifier: Apache-2.0
// Runs one peer's calls (call.h) and measures them. Workload: CALLS calls with BYTES bytes of
// argument text, shared out among THREADS threads that start together.
//
//   --calls N    (1000)      --threads N  (1)      --bytes N  (27)
//   --warm N     (50)        calls before the first reading
//   --rounds                 reads "CALLS THREADS BYTES" lines instead, and makes a round of each
//
// Each round prints one line of JSON: count, median, spread, minimum and maximum of a call's wall
// time, the whole round's wall time and processor time, descriptors and resident memory before and
// after, all of it and its own; and, when the allocation counter is preloaded, what the calls took
// from the heap.
#define _GNU_SOURCE
#include "call.h"

#include <dlfcn.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "alloc_count.h"
#include "measure.h"

struct caller {
    pthread_t thread;
    pthread_barrier_t* start;
    const char* text;
    size_t length;
    size_t calls;
    uint64_t* samples;
};

static void make_calls(const struct caller* caller) {
    for (size_t i = 0; i < caller->calls; ++i) {
        const uint64_t before = measure_now();
        bench_call(caller->text, caller->length);
        caller->samples[i] = measure_now() - before;
    }
}

static void* run(void* argument) {
    const struct caller* caller = argument;
    pthread_barrier_wait(caller->start);
    make_calls(caller);
    return NULL;
}

/* The wall time of all. One caller stays on the main thread. */
static uint64_t run_all(struct caller* callers, size_t threads) {
    if (threads == 1) {
        const uint64_t before = measure_now();
        make_calls(callers);
        return measure_now() - before;
    }
    pthread_barrier_t start;
    pthread_barrier_init(&start, NULL, (unsigned)threads + 1);
    for (size_t i = 0; i < threads; ++i) {
        callers[i].start = &start;
        if (pthread_create(&callers[i].thread, NULL, run, &callers[i]) != 0) {
            measure_fail("a thread cannot be started");
        }
    }
    pthread_barrier_wait(&start);
    const uint64_t before = measure_now();
    for (size_t i = 0; i < threads; ++i) {
        pthread_join(callers[i].thread, NULL);
    }
    const uint64_t wall = measure_now() - before;
    pthread_barrier_destroy(&start);
    return wall;
}

static char* make_text(size_t bytes) {
    static const char usual[] = "-t tmpfs none /run/media/x ";
    char* text = malloc(bytes + 1);
    if (text == NULL) {
        measure_fail("out of memory");
    }
    for (size_t i = 0; i < bytes; ++i) {
        text[i] = usual[i % (sizeof(usual) - 1)];
    }
    text[bytes] = '\0';
    return text;
}

static void print_heap(const struct alloc_counts* before, const struct alloc_counts* after,
                       size_t calls) {
    printf(",\"allocations_per_call\":%.2f,\"heap_bytes_per_call\":%.0f,\"heap_peak\":%lld",
           (double)(after->calls - before->calls) / (double)calls,
           (double)(after->bytes - before->bytes) / (double)calls,
           (long long)(after->peak - before->live));
}

static void round_of(size_t calls, size_t threads, size_t bytes) {
    const alloc_read_function read_counts =
        (alloc_read_function)(uintptr_t)dlsym(RTLD_DEFAULT, "alloc_read");
    struct alloc_counts heap_before = {0, 0, 0, 0};
    struct alloc_counts heap_after = {0, 0, 0, 0};
    char* text = make_text(bytes);
    uint64_t* samples = calloc(calls, sizeof(*samples));
    struct caller* callers = calloc(threads, sizeof(*callers));
    if (samples == NULL || callers == NULL) {
        measure_fail("out of memory");
    }
    /* Touched now: a page that comes with the first sample would look like the calls' own. */
    memset(samples, 1, calls * sizeof(*samples));
    size_t given = 0;
    for (size_t i = 0; i < threads; ++i) {
        callers[i].text = text;
        callers[i].length = bytes;
        callers[i].calls = calls * (i + 1) / threads - given;
        callers[i].samples = samples + given;
        given += callers[i].calls;
    }
    const long descriptors = measure_descriptors();
    const struct memory memory = measure_memory();
    if (read_counts != NULL) {
        read_counts(&heap_before);
    }
    const uint64_t cpu_before = measure_own_cpu();
    const uint64_t wall = run_all(callers, threads);
    const uint64_t cpu = measure_own_cpu() - cpu_before;
    if (read_counts != NULL) {
        read_counts(&heap_after);
    }
    const struct memory memory_after = measure_memory();
    const long descriptors_after = measure_descriptors();
    const struct statistics statistics = measure_statistics(samples, calls);
    printf("{\"peer\":\"%s\",\"calls\":%zu,\"threads\":%zu,\"bytes\":%zu,", bench_peer, calls,
           threads, bytes);
    measure_print(&statistics);
    printf(",\"wall_ns\":%" PRIu64 ",\"cpu_ns\":%" PRIu64, wall, cpu);
    printf(",\"descriptors\":[%ld,%ld],\"resident\":[%ld,%ld],\"own\":[%ld,%ld]", descriptors,
           descriptors_after, memory.resident, memory_after.resident, memory.own, memory_after.own);
    if (read_counts != NULL) {
        print_heap(&heap_before, &heap_after, calls);
    }
    if (calls <= 10000) {
        printf(",\"samples\":");
        measure_print_samples(samples, calls);
    }
    puts("}");
    fflush(stdout);
    free(callers);
    free(samples);
    free(text);
}

int main(int argc, char** argv) {
    const size_t bytes = (size_t)measure_option(argc, argv, "--bytes", 27);
    const long warm = measure_option(argc, argv, "--warm", 50);
    char* text = make_text(bytes);
    for (long i = 0; i < warm; ++i) {
        bench_call(text, bytes);
    }
    free(text);
    if (!measure_flag(argc, argv, "--rounds")) {
        const long calls = measure_option(argc, argv, "--calls", 1000);
        const long threads = measure_option(argc, argv, "--threads", 1);
        if (calls < 1 || threads < 1) {
            measure_fail("at least one call and one thread");
        }
        round_of((size_t)calls, (size_t)threads, bytes);
        return 0;
    }
    size_t calls = 0;
    size_t threads = 0;
    size_t size = 0;
    while (scanf("%zu %zu %zu", &calls, &threads, &size) == 3 && calls > 0 && threads > 0) {
        round_of(calls, threads, size);
    }
    return 0;
}
