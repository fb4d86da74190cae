// SPDX-License-Identifier: Apache-2.0
// Prints the words that the agent's splitter takes from the first argument, a NUL behind each.
#include <cstdio>

#include "parse/Words.h"

int main(int argc, char** argv) {
    const agent::Result<std::vector<std::string>> words =
        agent::SplitWords(argc == 2 ? argv[1] : "'");
    if (!words) {
        std::fprintf(stderr, "split: %s\n", words.Reason().c_str());
        return 1;
    }
    for (const std::string& word : *words) {
        if (std::fwrite(word.c_str(), 1, word.size() + 1, stdout) != word.size() + 1) {
            return 1;
        }
    }
    return 0;
}
