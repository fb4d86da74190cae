// SPDX-License-Identifier: Apache-2.0
// A platform log that keeps what it is given. Linking it into a test program makes it take every
// line of the library. Safe to use from any thread.
#ifndef SENTREL_TESTS_LOGRECORDER_H
#define SENTREL_TESTS_LOGRECORDER_H

#include <string>
#include <vector>

namespace test {

struct LogLine {
    int id = -1;           // log buffer
    int priority = -1;     // 3 debug, 4 info, 5 warning, 6 error
    std::string tag;       // "SENTREL"
    std::string format;    // as given
    std::string sinkFile;  // the first of the four arguments
    std::string sinkFunction;
    int sinkLine = -1;
    std::string text;  // "[SR] [FILE(FUNCTION() +LINE)]BODY"

    // Parts of `text`; empty or -1 when it has another shape.
    std::string File() const;
    std::string Function() const;
    int Line() const;
    std::string Body() const;
};

// All lines since the last call, in order, and forgets them.
std::vector<LogLine> TakeLog();

// "D FUNCTION BODY" for each line (D, I, W or E for the priority), with every pointer (0x...) of
// the body replaced by "PTR" and every unique bus name (:1.N) by ":UNIQUE".
std::vector<std::string> Brief(const std::vector<LogLine>& lines);

}  // namespace test

#endif
