// SPDX-License-Identifier: Apache-2.0
// The built command in a process of its own. Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_CLI_COMMAND_H
#define SENTREL_TESTS_CLI_COMMAND_H

#include <string>
#include <vector>

#include "RunProgram.h"

namespace test {

// Runs it to its end. On a terminal, the output is what a person would get sent.
Finished RunCommand(const std::vector<std::string>& words, Output output = Output::kPipe);

// The text as another program reads JSON: PYTHON is an expression over `x`, printed. A text that is
// not JSON throws.
std::string ReadJson(const std::string& text, const std::string& python);

}  // namespace test

#endif
