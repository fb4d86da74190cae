// SPDX-License-Identifier: Apache-2.0
// The program's options, read into a value. What is wrong with them is said at once.
#ifndef SENTREL_AGENT_OPTIONS_H
#define SENTREL_AGENT_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "passage/Quota.h"

namespace agent {

struct Options {
    std::vector<std::string> rules;  // directories
    bool rulesNamed = false;         // by whoever started the program
    std::string toolPath = "/usr/sbin:/usr/bin:/sbin:/bin";
    QuotaLimits limits;
    std::string mock;  // a table's file; empty: none
    bool auditToStandardError = false;
    bool check = false;
    std::optional<int> exit;  // the program's exit status: there is nothing more to do
};

Options ReadOptions(int argc, char** argv);

}  // namespace agent

#endif
