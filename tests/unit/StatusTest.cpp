// SPDX-License-Identifier: Apache-2.0
// The table of status codes and its texts.
#include "SR_Status.h"

#include <gtest/gtest.h>

#include <climits>

#include "SR_API.h"
#include "SR_Error.h"

namespace {

using sentrel::SR_Error;

TEST(StatusTest, EveryCodeHasItsNameAsText) {
    const struct {
        int code;
        int value;
        const char* text;
    } table[] = {
        {SR_OK, 0, "OK"},
        {SR_FAIL, 1, "FAIL"},
        {SR_INVALID_REGEX, 2, "INVALID_REGEX"},
        {SR_COMM_OK, 3, "COMM_OK"},
        {SR_COMM_SERVICE_EXISTS, 4, "COMM_SERVICE_EXISTS"},
        {SR_COMM_NO_SERVICE, 5, "COMM_NO_SERVICE"},
        {SR_COMM_FAILED, 6, "COMM_FAILED"},
        {SR_RULE_NO_FOUND, 7, "RULE_NO_FOUND"},
        {SR_WAITPID_FAILED, 8, "WAITPID_FAILED"},
        {SR_FORK_FAILED, 9, "FORK_FAILED"},
        {SR_FEATURE_ISNT_IMPLEMENTED, 10, "FEATURE_ISNT_IMPLEMENTED"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(row.value, row.code);
        EXPECT_STREQ(row.text, SR_Error::ToString(row.value));
    }
}

TEST(StatusTest, AnyOtherValueIsAnUnknownError) {
    for (const int code : {11, 12, 255, 256, INT_MAX, -1, -10, INT_MIN}) {
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
