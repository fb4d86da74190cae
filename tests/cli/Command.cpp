// SPDX-License-Identifier: Apache-2.0
#include "Command.h"

#include <stdexcept>

namespace test {

Finished RunCommand(const std::vector<std::string>& words, Output output) {
    std::vector<std::string> program = {SENTREL_COMMAND};
    program.insert(program.end(), words.begin(), words.end());
    return RunProgram(program, output);
}

std::string ReadJson(const std::string& text, const std::string& python) {
    // Ascii: characters beyond it are shown by their numbers.
    const Finished finished = RunProgram(
        {"python3", "-c",
         "import json, sys\nx = json.loads(sys.argv[1])\nprint(ascii(" + python + "), end='')",
         text});
    if (finished.exit != 0) {
        throw std::runtime_error(finished.errors);
    }
    return finished.output;
}

}  // namespace test
