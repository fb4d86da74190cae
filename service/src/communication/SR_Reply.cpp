// SPDX-License-Identifier: Apache-2.0
#include <charconv>
#include <cstring>
#include <limits>
#include <system_error>

#include "SR_ReplyImpl.h"

namespace sentrel {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// Moves `text` behind the number; false when there is none or it overflows. A stream would do, but
// making one and its locale touches more memory than all the rest of reading a reply.
bool ReadNumber(const char*& text, const char* end, int& number) {
    number = 0;
    while (text != end && std::strchr(" \t\n\v\f\r", *text) != nullptr && *text != '\0') {
        ++text;
    }
    const bool negative = text != end && *text == '-';
    const char* const digits = text != end && (*text == '-' || *text == '+') ? text + 1 : text;
    if (digits == end || !IsDigit(*digits)) {
        return false;
    }
    const std::from_chars_result result = std::from_chars(negative ? text : digits, end, number);
    text = result.ptr;
    if (result.ec == std::errc::result_out_of_range) {
        number = negative ? std::numeric_limits<int>::min() : std::numeric_limits<int>::max();
        return false;
    }
    return true;
}

}  // namespace

void ReadReply(const std::string& text, int& status, int& returnValue) {
    const char* position = text.data();
    const char* const end = position + text.size();
    returnValue = 0;
    if (ReadNumber(position, end, status)) {
        (void)ReadNumber(position, end, returnValue);
    }
}

}  // namespace sentrel
