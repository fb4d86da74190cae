// SPDX-License-Identifier: Apache-2.0
// Every test of the program this is linked into must leave nothing behind.
#include "Resources.h"

namespace {

const bool kAppended = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new test::NothingLeftBehind);
    return true;
}();

}  // namespace
