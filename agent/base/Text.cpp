// SPDX-License-Identifier: Apache-2.0
// Byte by byte, without a locale: what a caller sent may be no text at all.
#include "Text.h"

#include <cstddef>

namespace agent {

const char* const kDigits = "0123456789";
const char* const kLower = "abcdefghijklmnopqrstuvwxyz0123456789";
const char* const kAlnum = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

namespace {
const std::size_t kLongestQuote = 120;

unsigned char ByteAt(const std::string& text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}
}  // namespace

bool HasControl(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char byte = ByteAt(text, i);
        if (byte < 0x20 || byte == 0x7f) {
            return true;
        }
        if (byte == 0xc2 && i + 1 < text.size() && ByteAt(text, i + 1) >= 0x80 &&
            ByteAt(text, i + 1) <= 0x9f) {
            return true;
        }
    }
    return false;
}

std::string HexByte(char byte) {
    static const char kHex[] = "0123456789abcdef";
    const unsigned value = static_cast<unsigned char>(byte);
    return {'\\', 'x', kHex[value >> 4], kHex[value & 15]};
}

std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (quoted.size() > kLongestQuote) {
            quoted += "...";
            break;
        }
        const unsigned char byte = ByteAt(text, i);
        if (byte < 0x20 || byte > 0x7e || byte == '\'' || byte == '\\') {
            quoted += HexByte(text[i]);
        } else {
            quoted += text[i];
        }
    }
    return quoted + "'";
}

std::string Join(const std::vector<std::string>& parts, const char* separator) {
    std::string joined;
    for (const std::string& part : parts) {
        if (&part != &parts.front()) {
            joined += separator;
        }
        joined += part;
    }
    return joined;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    for (;;) {
        const std::size_t end = text.find(separator, begin);
        pieces.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
        if (end == std::string::npos) {
            return pieces;
        }
        begin = end + 1;
    }
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool IsMadeOf(const std::string& text, const char* allowed) {
    return !text.empty() && text.find_first_not_of(allowed) == std::string::npos;
}

}  // namespace agent
