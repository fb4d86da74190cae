// SPDX-License-Identifier: Apache-2.0
// The program's options, read into a value.
#ifndef SENTREL_AGENT_OPTIONS_H
#define SENTREL_AGENT_OPTIONS_H

#include <string>
#include <vector>

#include "passage/Quota.h"

namespace agent {

struct Options {
    std::vector<std::string> rules;  // directories
    std::string toolPath = "/usr/sbin:/usr/bin:/sbin:/bin";
    QuotaLimits limits;
    std::string mock;  // a table's file; empty: none
    bool auditToStandardError = false;
    bool check = false;
};

// Less than 0: go on. Otherwise the exit status; everything has been said.
int ReadOptions(int argc, char** argv, Options& options);

}  // namespace agent

#endif
