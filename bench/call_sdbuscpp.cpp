// SPDX-License-Identifier: Apache-2.0
// The same job on sdbus-c++.
#include <sdbus-c++/sdbus-c++.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "call.h"
#include "measure.h"

extern const char bench_peer[];
const char bench_peer[] = "sdbus-c++";

void bench_call(const char* text, size_t /*length*/) {
    try {
        const auto connection = sdbus::createSystemBusConnection();
        const auto rule = connection->addMatch(BENCH_RULE, [](sdbus::Message&) {});
        const auto proxy = sdbus::createProxy(*connection, BENCH_NAME, BENCH_PATH);
        std::string answer;
        proxy->callMethod(BENCH_MEMBER)
            .onInterface(BENCH_NAME)
            .withArguments(std::string(BENCH_AGENT), std::string(text), std::int32_t{0})
            .storeResultsTo(answer);
        std::istringstream reader(answer);
        int status = -1;
        int result = -1;
        reader >> status >> result;
        if (status != 0 || result != BENCH_RESULT) {
            measure_fail("another answer than the agent's");
        }
    } catch (const std::exception& exception) {
        measure_fail(exception.what());
    }
}
