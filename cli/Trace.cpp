// SPDX-License-Identifier: Apache-2.0
#include "Trace.h"

#include <cstdarg>
#include <cstdio>

namespace {

bool trace = false;

char Letter(int priority) {
    return priority >= 3 && priority <= 6 ? "DIWE"[priority - 3] : '?';
}

}  // namespace

namespace cli {

void SetTrace(bool on) {
    trace = on;
}

}  // namespace cli

// The library's reference finds this definition before the platform's.
extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int /*log_id*/, int priority, const char* tag, const char* format, ...) {
    if (!trace) {
        return 0;
    }
    std::fprintf(stderr, "%c %s ", Letter(priority), tag);
    va_list arguments;
    va_start(arguments, format);
    const int written = std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    (void)std::fputc('\n', stderr);
    return written;
}
