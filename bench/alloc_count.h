/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The allocation counter, a library to be preloaded: counts what the whole process takes from the
 * heap, all threads together. A program finds alloc_read by name at run time.
 */
#ifndef SENTREL_BENCH_ALLOC_COUNT_H
#define SENTREL_BENCH_ALLOC_COUNT_H

struct alloc_counts {
    long long calls; /* malloc, calloc, realloc and the aligned ones; not free */
    long long bytes; /* asked for; by a realloc, all of the new size */
    long long live;  /* usable bytes not freed at the moment */
    long long peak;  /* the most of these since the last reading */
};

typedef void (*alloc_read_function)(struct alloc_counts* counts);

#endif
