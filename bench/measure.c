// SPDX-License-Identifier: Apache-2.0
// See measure.h.
#define _GNU_SOURCE
#include "measure.h"

#include <dirent.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#ifndef __OPTIMIZE__
__attribute__((constructor)) static void warn(void) {
    fputs("warning: this benchmark is built without optimisation; its figures mean little\n",
          stderr);
}
#endif

static uint64_t read_clock(clockid_t clock) {
    struct timespec time;
    if (clock_gettime(clock, &time) != 0) {
        measure_fail("a clock cannot be read");
    }
    return (uint64_t)time.tv_sec * 1000000000U + (uint64_t)time.tv_nsec;
}

uint64_t measure_now(void) {
    return read_clock(CLOCK_MONOTONIC);
}

uint64_t measure_own_cpu(void) {
    struct rusage children;
    if (getrusage(RUSAGE_CHILDREN, &children) != 0) {
        measure_fail("the children's processor time cannot be read");
    }
    const uint64_t seconds = (uint64_t)(children.ru_utime.tv_sec + children.ru_stime.tv_sec);
    const uint64_t micro = (uint64_t)(children.ru_utime.tv_usec + children.ru_stime.tv_usec);
    return read_clock(CLOCK_PROCESS_CPUTIME_ID) + seconds * 1000000000U + micro * 1000U;
}

uint64_t measure_cpu_of(int process) {
    clockid_t clock;
    if (clock_getcpuclockid(process, &clock) != 0) {
        measure_fail("a process's clock cannot be found");
    }
    return read_clock(clock);
}

static int compare(const void* left, const void* right) {
    const uint64_t a = *(const uint64_t*)left;
    const uint64_t b = *(const uint64_t*)right;
    return a < b ? -1 : a > b;
}

struct statistics measure_statistics(uint64_t* samples, size_t count) {
    struct statistics result;
    qsort(samples, count, sizeof(*samples), compare);
    result.median = samples[count / 2];
    result.p99 = samples[(count - 1) * 99 / 100];
    result.spread = samples[(count - 1) * 3 / 4] - samples[(count - 1) / 4];
    result.minimum = samples[0];
    result.maximum = samples[count - 1];
    return result;
}

long measure_descriptors(void) {
    DIR* directory = opendir("/proc/self/fd");
    if (directory == NULL) {
        measure_fail("/proc/self/fd cannot be read");
    }
    long count = 0;
    while (readdir(directory) != NULL) {
        ++count;
    }
    closedir(directory);
    return count - 3; /* two dots and the directory itself */
}

struct memory measure_memory(void) {
    long size = 0;
    long resident = 0;
    long of_files = 0;
    FILE* file = fopen("/proc/self/statm", "r");
    if (file == NULL || fscanf(file, "%ld %ld %ld", &size, &resident, &of_files) != 3) {
        measure_fail("/proc/self/statm cannot be read");
    }
    fclose(file);
    const long page = sysconf(_SC_PAGESIZE);
    return (struct memory){resident * page, (resident - of_files) * page};
}

void measure_print(const struct statistics* s) {
    printf("\"median_ns\":%" PRIu64 ",\"p99_ns\":%" PRIu64 ",\"spread_ns\":%" PRIu64
           ",\"min_ns\":%" PRIu64 ",\"max_ns\":%" PRIu64,
           s->median, s->p99, s->spread, s->minimum, s->maximum);
}

void measure_print_samples(const uint64_t* samples, size_t count) {
    putchar('[');
    for (size_t i = 0; i < count; ++i) {
        printf(i == 0 ? "%" PRIu64 : ",%" PRIu64, samples[i]);
    }
    putchar(']');
}

void measure_fail(const char* what) {
    fprintf(stderr, "benchmark: %s\n", what);
    exit(1);
}

const char* measure_text_option(int argc, char** argv, const char* option, const char* otherwise) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (strcmp(argv[i], option) == 0) {
            return argv[i + 1];
        }
    }
    return otherwise;
}

long measure_option(int argc, char** argv, const char* option, long otherwise) {
    const char* value = measure_text_option(argc, argv, option, NULL);
    return value != NULL ? strtol(value, NULL, 10) : otherwise;
}

int measure_flag(int argc, char** argv, const char* flag) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], flag) == 0) {
            return 1;
        }
    }
    return 0;
}
