/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The first call: mounts a small temporary file system, and ends as mount(8) ended.
 *     cc -std=c99 first.c $(pkg-config --cflags --libs sentrel-client) -o first
 */
#include <sentrel/SR_API.h>
#include <stdio.h>

int main(void) {
    static const char args[] = "-t tmpfs -o size=1m none /run/media/x";
    int exit_code = 0;
    int status = SR_Mount(args, sizeof(args) - 1, 1, &exit_code);
    if (status != SR_OK) {
        fprintf(stderr, "not mounted: status %d, %s\n", status, SR_ErrorToString(status));
        return 125;
    }
    return exit_code;
}
