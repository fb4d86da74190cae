// SPDX-License-Identifier: Apache-2.0
// A matrix of requests that must be refused: from one good request of each operation, each field
// made wrong in turn, each way of smuggling tried in each field and between the fields, each other
// caller. They are meant for the narrow rules of RuleTexts.h.
#ifndef SENTREL_TESTS_AGENT_DENIALS_H
#define SENTREL_TESTS_AGENT_DENIALS_H

#include <string>
#include <vector>

#include "RuleTexts.h"

struct DenialCase {
    std::string operation;
    std::string text;
    agent::Caller caller;
    bool smuggled;  // refused whatever the rules say
};

const std::vector<DenialCase>& DenialCases();

// The requests that the cases were made from; the narrow rules allow them.
const std::vector<DenialCase>& GoodCases();

#endif
