/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What all benchmark programs share: one clock, the statistics of a row of samples, and the text
 * of a machine-readable line. Owns nothing; any thread may call it.
 */
#ifndef SENTREL_BENCH_MEASURE_H
#define SENTREL_BENCH_MEASURE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct statistics {
    uint64_t median;
    uint64_t p99;
    uint64_t spread; /* between the quartiles */
    uint64_t minimum;
    uint64_t maximum;
};

/* Nanoseconds of the monotonic clock. */
uint64_t measure_now(void);

/* Nanoseconds of processor time: of this process with all its threads and the children that it has
 * waited for; of another process. */
uint64_t measure_own_cpu(void);
uint64_t measure_cpu_of(int process);

/* Sorts the samples, of which there is at least one. */
struct statistics measure_statistics(uint64_t* samples, size_t count);

/* This process's open descriptors. */
long measure_descriptors(void);

/* This process's resident memory in bytes, and how much of it is its own: pages of programs and
   libraries come in by sixteen, whenever a piece of them is run for the first time. */
struct memory {
    long resident;
    long own;
};
struct memory measure_memory(void);

/* `"median_ns":...,"p99_ns":...` and so on, without braces, to the standard output. */
void measure_print(const struct statistics* statistics);

/* A row of samples as a JSON array. */
void measure_print_samples(const uint64_t* samples, size_t count);

/* Ends the program: a benchmark that measured something else than it says has no result. */
void measure_fail(const char* what) __attribute__((noreturn));

/* The value of "--option VALUE", or the default. */
long measure_option(int argc, char** argv, const char* option, long otherwise);
const char* measure_text_option(int argc, char** argv, const char* option, const char* otherwise);
int measure_flag(int argc, char** argv, const char* flag);

#ifdef __cplusplus
}
#endif

#endif
