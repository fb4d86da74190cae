// SPDX-License-Identifier: Apache-2.0
// The table of status codes and its texts.
#include "SR_Status.h"

#include <gtest/gtest.h>

#include "SR_API.h"
#include "SR_Error.h"
#include "StatusNames.h"

namespace {

using sentrel::SR_Error;

TEST(StatusTest, EveryCodeHasItsNameAsText) {
    for (const auto& row : kStatusNames) {
        EXPECT_EQ(row.value, row.status);
        EXPECT_STREQ(row.name, SR_Error::ToString(row.value));
    }
}

TEST(StatusTest, AnyOtherValueIsAnUnknownError) {
    for (const int code : kNamelessStatuses) {
        EXPECT_STREQ("Unknown error", SR_Error::ToString(code)) << code;
    }
}

TEST(StatusTest, TheSameCodeYieldsTheSamePointer) {
    for (int code = -2; code <= 13; ++code) {
        EXPECT_EQ(SR_Error::ToString(code), SR_Error::ToString(code)) << code;
    }
    EXPECT_EQ(SR_Error::ToString(-1), SR_Error::ToString(11));
}

TEST(StatusTest, TheExportedFunctionReturnsTheSameText) {
    for (int code = -2; code <= 13; ++code) {
        EXPECT_EQ(SR_Error::ToString(code), SR_ErrorToString(code)) << code;
    }
}

}  // namespace
