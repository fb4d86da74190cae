// SPDX-License-Identifier: Apache-2.0
// A pipe between the tool and the command, for output that is not to reach standard output as it
// is. The call runs on a thread of its own while this one reads; both are over on return.
#ifndef SENTREL_CLI_OUTPUT_H
#define SENTREL_CLI_OUTPUT_H

#include <functional>
#include <string>

namespace cli {

// Runs `call` with the descriptor to write to and returns what it returned. Everything written
// there is handed to `sink` in order. A writer that outlives the call is not waited for longer than
// it takes to fall silent. Throws what either throws, and std::system_error.
int WithOutput(const std::function<int(int descriptor)>& call,
               const std::function<void(const std::string& bytes)>& sink);

}  // namespace cli

#endif
