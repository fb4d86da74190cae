// SPDX-License-Identifier: Apache-2.0
#include "LibraryLog.h"

#include <cstdarg>
#include <cstdio>

namespace agent {

namespace {

LogQueue* lines = nullptr;

}  // namespace

LibraryLog::LibraryLog(sentrel::SR_MainLoop& loop)
    : log("sentrel-agent", nowhere, LogLimits{64, 16384}), attached(log, loop) {
    lines = &log;
}

LibraryLog::~LibraryLog() {
    lines = nullptr;
}

#ifdef SENTREL_LOGS_FOR_LIBRARY
namespace {

// The platform's debug, info, warning and error are 3 to 6.
int Priority(int priority) {
    return priority == 3   ? LOG_DEBUG
           : priority == 4 ? LOG_INFO
           : priority == 5 ? LOG_WARNING
                           : LOG_ERR;
}

}  // namespace
#endif

}  // namespace agent

#ifdef SENTREL_LOGS_FOR_LIBRARY
// The library's reference finds this definition before the one that writes to syslog(3).
extern "C" __attribute__((visibility("default"), format(printf, 4, 5))) int __dlog_print(
    int /*log_id*/, int priority, const char* tag, const char* format, ...) {
    if (agent::lines == nullptr) {
        return 0;
    }
    char text[2048];  // a longer one is cut here
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    agent::LogEntry entry;
    entry.facility = LOG_FAC(LOG_USER);
    entry.priority = agent::Priority(priority);
    entry.text = std::string(tag) + ": " + text;
    for (char& letter : entry.text) {
        letter = static_cast<unsigned char>(letter) < 0x20 ? ' ' : letter;
    }
    agent::lines->Write(std::move(entry));
    return length;
}
#endif
