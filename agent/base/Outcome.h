// SPDX-License-Identifier: Apache-2.0
// What came of a request that was carried out: for its answer and for the audit. A value type.
#ifndef SENTREL_AGENT_OUTCOME_H
#define SENTREL_AGENT_OUTCOME_H

#include <sentrel/SR_Status.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace agent {

struct Outcome {
    int status = SR_OK;
    int value = 0;       // for the answer
    int exit = -1;       // the tool's own; -1: it did not exit
    int signal = 0;      // 0: none ended it
    std::string reason;  // why the status is not SR_OK
    std::chrono::milliseconds duration{0};
    std::uint64_t outBytes = 0;  // these two: as far as the relay had ended
    std::uint64_t droppedBytes = 0;
};

}  // namespace agent

#endif
