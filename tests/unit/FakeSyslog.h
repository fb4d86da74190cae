// SPDX-License-Identifier: Apache-2.0
// syslog(3) inside the test program: what is written is kept, and every other use is counted.
#ifndef SENTREL_TESTS_FAKESYSLOG_H
#define SENTREL_TESTS_FAKESYSLOG_H

#include <string>
#include <vector>

namespace test {

struct SyslogEntry {
    int priority;
    std::string format;
    std::string text;
};

// All entries since the last call.
std::vector<SyslogEntry> TakeSyslog();

// Calls of openlog, closelog and setlogmask so far.
int SyslogStateChanges();

}  // namespace test

#endif
