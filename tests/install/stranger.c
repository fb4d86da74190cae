/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A stranger's C99 program: the texts, and a call on a system without a bus. It is run with
 * DBUS_SYSTEM_BUS_ADDRESS set to a socket that does not exist.
 */
#include <sentrel/SR_API.h>
#include <stdio.h>
#include <string.h>

static int Check(int holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "failed: %s\n", what);
    }
    return holds ? 0 : 1;
}

int main(void) {
    static const char args[] = "-t tmpfs none /run/media/x";
    int result = 4711;
    int failures = 0;
    failures += Check(strncmp(SR_ConfigInfo(), "v1.", 3) == 0, "the interface is version 1");
    failures += Check(strcmp(SR_ErrorToString(SR_COMM_FAILED), "COMM_FAILED") == 0, "text of 6");
    failures += Check(strcmp(SR_ErrorToString(11), "Unknown error") == 0, "text of 11");
    failures += Check(SR_Mount(args, sizeof(args) - 1, -1, &result) == SR_COMM_FAILED,
                      "a call without a bus is 6");
    failures += Check(result == 4711, "a failed call leaves the result alone");
    return failures;
}
