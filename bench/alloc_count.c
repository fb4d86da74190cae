// SPDX-License-Identifier: Apache-2.0
// See alloc_count.h. Stands before the C library's functions and calls them under the names that
// the C library keeps for this purpose, so that nothing has to be looked up.
#define _GNU_SOURCE
#include "alloc_count.h"

#include <errno.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stddef.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* old, size_t size);
extern void* __libc_memalign(size_t alignment, size_t size);
extern void __libc_free(void* block);

void alloc_read(struct alloc_counts* counts);

static atomic_llong calls;
static atomic_llong bytes;
static atomic_llong live;
static atomic_llong peak;

static void* count(void* block, size_t size) {
    if (block != NULL) {
        atomic_fetch_add(&calls, 1);
        atomic_fetch_add(&bytes, (long long)size);
        const long long usable = (long long)malloc_usable_size(block);
        const long long now = atomic_fetch_add(&live, usable) + usable;
        long long highest = atomic_load(&peak);
        while (now > highest && !atomic_compare_exchange_weak(&peak, &highest, now)) {
        }
    }
    return block;
}

static void forget(void* block) {
    if (block != NULL) {
        atomic_fetch_sub(&live, (long long)malloc_usable_size(block));
    }
}

void alloc_read(struct alloc_counts* counts) {
    counts->calls = atomic_load(&calls);
    counts->bytes = atomic_load(&bytes);
    counts->live = atomic_load(&live);
    counts->peak = atomic_exchange(&peak, counts->live);
}

void* malloc(size_t size) {
    return count(__libc_malloc(size), size);
}

void* calloc(size_t number, size_t size) {
    return count(__libc_calloc(number, size), number * size);
}

void* realloc(void* old, size_t size) {
    const size_t before = old != NULL ? malloc_usable_size(old) : 0;
    void* block = __libc_realloc(old, size);
    if (block != NULL || size == 0) {
        atomic_fetch_sub(&live, (long long)before);
    }
    return count(block, size);
}

void* memalign(size_t alignment, size_t size) {
    return count(__libc_memalign(alignment, size), size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    *block = memalign(alignment, size);
    return *block != NULL ? 0 : ENOMEM;
}

void free(void* block) {
    forget(block);
    __libc_free(block);
}
