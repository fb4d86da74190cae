// SPDX-License-Identifier: Apache-2.0
// Skipping what the machine cannot do, with a reason. With SENTREL_MUST_RUN=1 in the environment a
// skip is a failure.
#ifndef SENTREL_TESTS_SKIP_H
#define SENTREL_TESTS_SKIP_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace test {

inline bool MustRun() {
    const char* value = std::getenv("SENTREL_MUST_RUN");
    return value != nullptr && std::string(value) == "1";
}

}  // namespace test

// Leaves the test.
#define SENTREL_SKIP(reason)                                          \
    do {                                                              \
        if (::test::MustRun()) {                                      \
            FAIL() << "must run, but would be skipped: " << (reason); \
        }                                                             \
        GTEST_SKIP() << (reason);                                     \
    } while (false)

#define NEEDS_ROOT()                         \
    do {                                     \
        if (geteuid() != 0) {                \
            SENTREL_SKIP("this needs root"); \
        }                                    \
    } while (false)

#endif
