/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The C interface from C: the header as strict C99, and what it answers without a bus. The program
 * links the shared library like any caller and takes its log; it exits with the count of mistakes.
 */
#include "SR_API.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "StatusNames.h"

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...);

static int logged = 0;
static int mistakes = 0;

SR_EXPORT int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    (void)log_id;
    (void)priority;
    (void)tag;
    (void)format;
    ++logged;
    return 0;
}

static void Check(int holds, const char* what, const char* about) {
    if (!holds) {
        ++mistakes;
        fprintf(stderr, "%s: %s\n", about, what);
    }
}

typedef int (*Operation)(const char* args, unsigned int length, int descriptor, int* result);

static const struct {
    const char* name;
    Operation call;
} kOperations[] = {
    {"SR_Mount", SR_Mount},           {"SR_Umount", SR_Umount},
    {"SR_Mount_Cifs", SR_Mount_Cifs}, {"SR_Umount_Cifs", SR_Umount_Cifs},
    {"SR_Mknod", SR_Mknod},           {"SR_Insmod", SR_Insmod},
    {"SR_Rmmod", SR_Rmmod},           {"SR_Systemctl", SR_Systemctl},
};

/* Refused before anything else: nothing logged, the result left alone. */
static void CheckNullArguments(void) {
    const unsigned int lengths[] = {0, 1, UINT_MAX};
    size_t i;
    size_t j;
    for (i = 0; i < sizeof(kOperations) / sizeof(kOperations[0]); ++i) {
        for (j = 0; j < sizeof(lengths) / sizeof(lengths[0]); ++j) {
            int result = 0x5a5a5a5a;
            int code = kOperations[i].call(NULL, lengths[j], 1, &result);
            Check(code == SR_COMM_FAILED, "null arguments are refused with 6", kOperations[i].name);
            Check(result == 0x5a5a5a5a, "the result is left alone", kOperations[i].name);
            Check(kOperations[i].call(NULL, lengths[j], -1, NULL) == 6, "a null result is as good",
                  kOperations[i].name);
        }
    }
    Check(logged == 0, "nothing is logged", "null arguments");
}

static void CheckConfigInfo(void) {
    const char* info = SR_ConfigInfo();
    const char* again = SR_ConfigInfo();
    Check(strcmp(info, "v1.0 5d1e0c2a7b94f3e8a06c1b7d29e4f5a3") == 0, info, "SR_ConfigInfo");
    Check(again == info, "every call returns the same pointer", "SR_ConfigInfo");
    Check(strlen(info) == 4 + 1 + 32, "version, blank, 32 digits", "SR_ConfigInfo");
    Check(strspn(info + 5, "0123456789abcdef") == 32, "lower-case hexadecimal", "SR_ConfigInfo");
}

static void CheckErrorTexts(void) {
    size_t i;
    for (i = 0; i < sizeof(kStatusNames) / sizeof(kStatusNames[0]); ++i) {
        const char* name = kStatusNames[i].name;
        const char* text = SR_ErrorToString(kStatusNames[i].value);
        Check(kStatusNames[i].status == kStatusNames[i].value, "another value", name);
        Check(strcmp(text, name) == 0, text, name);
        Check(SR_ErrorToString(kStatusNames[i].value) == text, "the same pointer", name);
    }
    for (i = 0; i < sizeof(kNamelessStatuses) / sizeof(kNamelessStatuses[0]); ++i) {
        const char* text = SR_ErrorToString(kNamelessStatuses[i]);
        Check(strcmp(text, "Unknown error") == 0, text, "outside the table");
    }
}

int main(void) {
    CheckNullArguments();
    CheckConfigInfo();
    CheckErrorTexts();
    printf("%d mistakes\n", mistakes);
    return mistakes == 0 ? 0 : 1;
}
