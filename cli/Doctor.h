// SPDX-License-Identifier: Apache-2.0
// Looks at each step of the way to the agent, and for the ones that fail says what to do: the
// commands to run and the lines to add, exactly.
#ifndef SENTREL_CLI_DOCTOR_H
#define SENTREL_CLI_DOCTOR_H

#include <string>
#include <vector>

#include "Control.h"
#include "Installed.h"
#include "Options.h"

namespace cli {

// Who runs the command, as far as the bus's policy asks.
struct Person {
    std::string name;
    bool root = false;
    bool groupExists = false;
    bool listed = false;  // in the group, by the system's list
    bool member = false;  // in the group, in this process

    static Person Myself();
};

enum class State { kGood, kFailed, kUnknown };

const char* StateName(State state);

struct Step {
    const char* name;
    State state;
    std::string detail;
    std::vector<std::string> advice;
    int exit;  // the command's, when this is the first step that fails
};

// Pure. `address` is where the bus was looked for; empty for the system's own place, the only bus
// of which `installed` says anything.
std::vector<Step> Diagnose(const Findings& findings, const Person& person,
                           const std::string& address, const Installed& installed);

// Returns the exit status: 0, or that of the first step that fails.
int Doctor(const Options& options);

}  // namespace cli

#endif
