// SPDX-License-Identifier: Apache-2.0
// What a status means to a person and to a script, and what became of an operation. Value types.
#ifndef SENTREL_CLI_OUTCOME_H
#define SENTREL_CLI_OUTCOME_H

#include <optional>
#include <string>
#include <vector>

#include "Options.h"

namespace cli {

// What to do when nobody is there, and when the exchange fails.
extern const char kStartAgent[];
extern const char kAskDoctor[];

// Of a status code, without its prefix.
const char* StatusName(int status);

// One status code.
struct Meaning {
    int status;
    const char* text;
    const char* advice;

    // Whether a caller may receive it.
    bool IsReceived() const;
    // The command's exit status, where the code alone decides it.
    std::optional<int> Exit() const;
};

const std::vector<Meaning>& Meanings();

// Prints the table of them.
void PrintErrors(const Options& options);

struct Outcome {
    int status;
    int value;  // the tool's exit code; meaningful when it ran

    // Whether the command ends as the tool did.
    bool IsTools() const;
    // The command's exit status.
    int Exit() const;
    std::string Text() const;
    std::string Advice() const;
};

}  // namespace cli

#endif
