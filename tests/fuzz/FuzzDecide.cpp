// SPDX-License-Identifier: Apache-2.0
// Fuzz target: any text, as any of four callers to any operation, against narrow and wide rules.
// It stops at the first permit that the second opinion objects to. The first byte chooses caller
// and operation: 'h' to 'o' are the user of the narrow rules and each operation in turn.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>

#include "Oracle.h"
#include "RuleTexts.h"
#include "parse/Parse.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto kNarrow = MakeRules(kNarrowRules);
    static const auto kWide = MakeRules(kWideRules);
    static const std::vector<agent::OperationRow>& kOperations = agent::OperationRows();
    static const uid_t kUids[] = {0, 1000, 1001, 65534};
    if (size < 1) {
        return 0;
    }
    const std::string name = kOperations[data[0] % kOperations.size()].name;
    const agent::Caller caller = MakeCaller(kUids[data[0] / 8 % 4]);
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    for (const auto& set : {kNarrow, kWide}) {
        bool permitted = false;
        for (const std::string& objection : Ask(*set, caller, name, text, permitted)) {
            std::cerr << name << " " << text << ": " << objection << "\n";
            std::abort();
        }
    }
    return 0;
}
