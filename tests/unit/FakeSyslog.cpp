// SPDX-License-Identifier: Apache-2.0
// Without <syslog.h>: with hardening on, the header defines what is defined here.
#include "FakeSyslog.h"

#include <cstdarg>
#include <cstdio>

namespace {

std::vector<test::SyslogEntry> entries;
int stateChanges = 0;

__attribute__((format(printf, 2, 0))) void Record(int priority, const char* format,
                                                  va_list arguments) {
    char text[8192];
    (void)std::vsnprintf(text, sizeof(text), format, arguments);
    entries.push_back(test::SyslogEntry{priority, format, text});
}

}  // namespace

extern "C" {

void syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
// What syslog becomes with hardening on.
void __syslog_chk(int priority, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void openlog(const char* identity, int option, int facility);
void closelog();
int setlogmask(int mask);

void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Record(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Record(priority, format, arguments);
    va_end(arguments);
}

void openlog(const char* /*identity*/, int /*option*/, int /*facility*/) {
    ++stateChanges;
}

void closelog() {
    ++stateChanges;
}

int setlogmask(int /*mask*/) {
    ++stateChanges;
    return 0;
}

}  // extern "C"

namespace test {

std::vector<SyslogEntry> TakeSyslog() {
    std::vector<SyslogEntry> taken;
    taken.swap(entries);
    return taken;
}

int SyslogStateChanges() {
    return stateChanges;
}

}  // namespace test
