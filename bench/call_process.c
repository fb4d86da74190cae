// SPDX-License-Identifier: Apache-2.0
// The same job by a process of its own: dbus-send or busctl (BENCH_PROCESS says which), which make
// the call alone, without the match rule. Processor time is the child's.
#define _GNU_SOURCE
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include "call.h"
#include "measure.h"

extern char** environ;

#if BENCH_PROCESS == 1
const char bench_peer[] = "dbus-send";
#else
const char bench_peer[] = "busctl";
#endif

static void spawn(char** arguments) {
    posix_spawn_file_actions_t actions;
    pid_t child = 0;
    int status = 0;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (posix_spawnp(&child, arguments[0], &actions, NULL, arguments, environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0) {
        measure_fail("the process failed");
    }
    posix_spawn_file_actions_destroy(&actions);
}

void bench_call(const char* text, size_t length) {
    (void)length;
#if BENCH_PROCESS == 1
    char* argument = NULL;
    if (asprintf(&argument, "string:%s", text) < 0) {
        measure_fail("out of memory");
    }
    char* arguments[] = {"dbus-send",
                         "--system",
                         "--print-reply",
                         "--dest=" BENCH_NAME,
                         BENCH_PATH,
                         BENCH_NAME "." BENCH_MEMBER,
                         "string:" BENCH_AGENT,
                         argument,
                         "int32:0",
                         NULL};
    spawn(arguments);
    free(argument);
#else
    char* arguments[] = {"busctl",    "--system", "--",         "call", BENCH_NAME,
                         BENCH_PATH,  BENCH_NAME, BENCH_MEMBER, "ssi",  BENCH_AGENT,
                         (char*)text, "0",        NULL};
    spawn(arguments);
#endif
}
