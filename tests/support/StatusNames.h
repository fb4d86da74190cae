/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The status codes with their values and names, written out again, so that a change of either fails
 * a test. For C and C++; included after the header that declares enum SR_Status.
 */
#ifndef SENTREL_TESTS_STATUSNAMES_H
#define SENTREL_TESTS_STATUSNAMES_H

#include <limits.h>

static const struct {
    int status;
    int value;
    const char* name;
} kStatusNames[] = {
    {SR_OK, 0, "OK"},
    {SR_FAIL, 1, "FAIL"},
    {SR_INVALID_REGEX, 2, "INVALID_REGEX"},
    {SR_COMM_OK, 3, "COMM_OK"},
    {SR_COMM_SERVICE_EXISTS, 4, "COMM_SERVICE_EXISTS"},
    {SR_COMM_NO_SERVICE, 5, "COMM_NO_SERVICE"},
    {SR_COMM_FAILED, 6, "COMM_FAILED"},
    {SR_RULE_NO_FOUND, 7, "RULE_NO_FOUND"},
    {SR_WAITPID_FAILED, 8, "WAITPID_FAILED"},
    {SR_FORK_FAILED, 9, "FORK_FAILED"},
    {SR_FEATURE_ISNT_IMPLEMENTED, 10, "FEATURE_ISNT_IMPLEMENTED"},
};

/* Values that have no name, those next to the table among them. */
static const int kNamelessStatuses[] = {-1, 11, 12, 255, 256, -10, INT_MAX, INT_MIN};

#endif
