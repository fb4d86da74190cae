// SPDX-License-Identifier: Apache-2.0
#include "SR_Error.h"

#include "SR_Status.h"

namespace sentrel {

namespace {

// Indexed by code. The grammar of two of the names is deliberate: they are part of the interface
// (pinned by StatusTest, "EveryCodeHasItsNameAsText").
const char* const kTexts[] = {
    "OK",
    "FAIL",
    "INVALID_REGEX",
    "COMM_OK",
    "COMM_SERVICE_EXISTS",
    "COMM_NO_SERVICE",
    "COMM_FAILED",
    "RULE_NO_FOUND",
    "WAITPID_FAILED",
    "FORK_FAILED",
    "FEATURE_ISNT_IMPLEMENTED",
};
static_assert(sizeof(kTexts) / sizeof(kTexts[0]) == SR_FEATURE_ISNT_IMPLEMENTED + 1,
              "one text for each code");

}  // namespace

const char* SR_Error::ToString(int code) {
    // As unsigned, a negative code is a large one.
    if (static_cast<unsigned>(code) > static_cast<unsigned>(SR_FEATURE_ISNT_IMPLEMENTED)) {
        return "Unknown error";
    }
    return kTexts[code];
}

}  // namespace sentrel
