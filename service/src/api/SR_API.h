/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The C interface of libsentrel-client: operations that need root, carried out by the agent.
 * Plain C99. Conventions of all eight operations:
 *
 *  1. `args` is the operation's command line as the standard tool takes it, without the tool's
 *     name: "-t tmpfs -o size=1m none /run/media/x". It is exactly `length` bytes and need not end
 *     in NUL. It must be valid UTF-8: libdbus checks it and by default ends the process. What
 *     follows a NUL byte is not sent. Null is refused with SR_COMM_FAILED.
 *  2. `descriptor` is the number of a descriptor of the calling process, to which the agent lets
 *     the tool write its output. It is sent as a number and neither used, duplicated nor closed
 *     here; keep it open until the call returns. 0 or less: no output.
 *  3. The status is returned: SR_OK, SR_COMM_NO_SERVICE (nobody owns the agent's name),
 *     SR_COMM_FAILED (any other failure on the way), or any other value that the agent answered.
 *     SR_COMM_FAILED does not mean that nothing was done: the answer may be what was lost. Numbers
 *     of an answer that cannot be read count as 0, and an agent's 3 is SR_OK here.
 *  4. `*result` receives the agent's own return value, such as the tool's exit code, only when
 *     SR_OK is returned; otherwise it is left alone. `result` may be null.
 *  5. A call blocks until the agent has answered. Connecting, the call and a question to the bus
 *     before and after it each wait at most libdbus's reply timeout of 25 s.
 *  6. Each call opens a private connection to the system bus and closes it. Nothing is kept between
 *     calls, and there is nothing to initialise. The bus's address may be set in the environment
 *     variable DBUS_SYSTEM_BUS_ADDRESS, which libdbus reads once in a process.
 *  7. Any thread may call at any time. A forked child may call if no other thread was in a call,
 *     nor making a C++ stream or locale, when it was forked. Do not cancel a thread during a call.
 *     The library starts no thread.
 *  8. In C++, a failed allocation can leave a call as std::bad_alloc, before or after the operation
 *     was carried out, and a `length` beyond what a string can hold as std::length_error; in C
 *     either ends the process, as a failed allocation while the connection is closed does in both.
 *     Nothing else is thrown.
 *  9. Diagnostics go to the platform log under the tag "SENTREL".
 * 10. Texts returned are static: never freed, never changed.
 */
#ifndef SENTREL_SR_API_H
#define SENTREL_SR_API_H

#include "SR_Export.h"
#include "SR_Status.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Mount a file system; unmount one. */
SR_EXPORT int SR_Mount(const char* args, unsigned int length, int descriptor, int* result);
SR_EXPORT int SR_Umount(const char* args, unsigned int length, int descriptor, int* result);

/* Mount a CIFS network share; unmount one. */
SR_EXPORT int SR_Mount_Cifs(const char* args, unsigned int length, int descriptor, int* result);
SR_EXPORT int SR_Umount_Cifs(const char* args, unsigned int length, int descriptor, int* result);

/* Make a device node. */
SR_EXPORT int SR_Mknod(const char* args, unsigned int length, int descriptor, int* result);

/* Load a kernel module; unload one. */
SR_EXPORT int SR_Insmod(const char* args, unsigned int length, int descriptor, int* result);
SR_EXPORT int SR_Rmmod(const char* args, unsigned int length, int descriptor, int* result);

/* Drive the service manager. */
SR_EXPORT int SR_Systemctl(const char* args, unsigned int length, int descriptor, int* result);

/* The version of the interface and the build it was fixed with; not the package's version. */
SR_EXPORT const char* SR_ConfigInfo(void);

/* The text of a status code; "Unknown error" for a value outside SR_Status. */
SR_EXPORT const char* SR_ErrorToString(int code);

#ifdef __cplusplus
}
#endif

#endif
