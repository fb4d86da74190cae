// SPDX-License-Identifier: Apache-2.0
// What the command line asked for besides the command, and where messages go.
#ifndef SENTREL_CLI_OPTIONS_H
#define SENTREL_CLI_OPTIONS_H

#include <cstdio>
#include <string>

#include "Text.h"

namespace cli {

// Exit statuses of the command's own; those up to 124 are the tool's.
const int kLastToolStatus = 124;
const int kUsage = 125;  // also: the exchange failed, or the tool's exit code is above 124
const int kRefused = 126;
const int kNobodyThere = 127;

struct Options {
    bool json = false;
    bool raw = false;    // the tool's output reaches a terminal as it is
    bool quiet = false;  // no message about an outcome
};

// A line on standard error; the text may come from elsewhere.
inline void Complain(const std::string& text) {
    std::fprintf(stderr, "sentrel: %s\n", Printable(text).c_str());
}

}  // namespace cli

#endif
