// SPDX-License-Identifier: Apache-2.0
// A platform log for systems that have none: libsentrel-dlog, one function that writes to
// syslog(3). It never opens, closes or reconfigures the process's syslog state; facility, identity
// and destination are whatever the program has chosen, or syslog's defaults.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "SR_LogImpl.h"

namespace {

int SyslogPriority(int priority) {
    switch (priority) {
        case 3:
            return LOG_DEBUG;
        case 4:
            return LOG_INFO;
        case 5:
            return LOG_WARNING;
        default:
            return LOG_ERR;
    }
}

}  // namespace

int __dlog_print(int /*log_id*/, int priority, const char* tag, const char* format, ...) {
    char text[2048];  // a longer entry is cut here
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    syslog(SyslogPriority(priority), "%s: %s", tag, text);
    return length;
}
