// SPDX-License-Identifier: Apache-2.0
// A program run to its end, with pipes or a terminal for its outputs. It asks this process's bus.
// Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_RUNPROGRAM_H
#define SENTREL_TESTS_RUNPROGRAM_H

#include <string>
#include <vector>

namespace test {

// Where its standard output goes.
enum class Output { kPipe, kTerminal, kClosed };

struct Finished {
    int exit = -1;  // -1 after a signal
    std::string output;
    std::string errors;
};

// `words` are the program, found by PATH, and its arguments. On a terminal, the output is what a
// person would get sent.
Finished RunProgram(const std::vector<std::string>& words, Output kind = Output::kPipe);

bool Holds(const std::string& text, const std::string& part);

}  // namespace test

#endif
