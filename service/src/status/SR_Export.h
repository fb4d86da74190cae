/* SPDX-License-Identifier: Apache-2.0 */
/*
 * What is visible outside the shared library. The library is compiled with hidden visibility;
 * SR_EXPORT opens a function or a class, SR_HIDDEN closes a class nested in an open one.
 */
#ifndef SENTREL_SR_EXPORT_H
#define SENTREL_SR_EXPORT_H

/* Visible outside. */
#define SR_EXPORT __attribute__((visibility("default")))
/* Not visible outside. */
#define SR_HIDDEN __attribute__((visibility("hidden")))

#endif
