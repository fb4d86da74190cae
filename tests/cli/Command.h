// SPDX-License-Identifier: Apache-2.0
// The built command in a process of its own, with pipes or a terminal for its outputs. Failures are
// thrown as std::runtime_error.
#ifndef SENTREL_TESTS_CLI_COMMAND_H
#define SENTREL_TESTS_CLI_COMMAND_H

#include <string>
#include <utility>
#include <vector>

namespace test {

const int kLimit = 30000;  // milliseconds, for whatever must come

// Where its standard output goes.
enum class Output { kPipe, kTerminal, kClosed };

struct Finished {
    int exit = -1;  // -1 after a signal
    std::string output;
    std::string errors;
};

// Runs it to its end. On a terminal, the output is what a person would get sent.
Finished RunCommand(const std::vector<std::string>& words, Output output = Output::kPipe);

// The text as another program reads JSON: PYTHON is an expression over `x`, printed. A text that is
// not JSON throws.
std::string ReadJson(const std::string& text, const std::string& python);

inline bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace test

#endif
