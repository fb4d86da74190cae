// SPDX-License-Identifier: Apache-2.0
// What one operation takes, as a table: its options and its operands, each with the function that
// checks one word and stores it in its field of the request. For Parse.cpp and the files of the
// families. Value types.
#ifndef SENTREL_AGENT_GRAMMAR_H
#define SENTREL_AGENT_GRAMMAR_H

#include <cstddef>
#include <string>
#include <vector>

#include "Parse.h"

namespace agent {

// Refused when the word must not be taken. No reason repeats a secret.
using Store = Check (*)(Request& request, const std::string& value);

struct OptionRow {
    char letter;       // 0: no short form
    const char* word;  // without the "--"
    bool takesValue;
    const char* stored;  // what is stored for an option without a value
    Store store;
};

struct OperandRow {
    const char* what;  // for the refusal when one is missing
    std::size_t least;
    std::size_t most;
    Store store;
};

struct Grammar {
    Operation operation;
    std::vector<OptionRow> options;
    std::vector<OperandRow> operands;
    // What can only be said of all fields together.
    Check (*finish)(Request& request);
    // Whether a rule may always add the option.
    Check (*checkAddition)(const std::string& option);
};

typedef std::vector<Grammar> Grammars;

}  // namespace agent

#endif
