// SPDX-License-Identifier: Apache-2.0
#include "Quote.h"

#include <cstring>

namespace cli {

namespace {

bool IsPlain(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || (c != '\0' && std::strchr("_-+=.,:/@%", c) != nullptr);
}

// The length of the character that starts with `first`, 0 for none, and the least value that
// needs that length.
std::size_t CharacterLength(unsigned char first, unsigned& least) {
    if (first < 0x80) {
        least = first == 0 ? 1 : 0;  // NUL is never well-formed here
        return 1;
    }
    if (first >= 0xc0 && first < 0xe0) {
        least = 0x80;
        return 2;
    }
    if (first >= 0xe0 && first < 0xf0) {
        least = 0x800;
        return 3;
    }
    least = 0x10000;
    return first >= 0xf0 && first < 0xf8 ? 4 : 0;
}

}  // namespace

std::string Quote(const std::string& word) {
    bool plain = !word.empty();
    for (const char c : word) {
        plain = plain && IsPlain(c);
    }
    if (plain) {
        return word;
    }
    std::string quoted = "'";
    for (const char c : word) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::string JoinQuoted(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + Quote(word);
    }
    return text;
}

bool IsText(const std::string& bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const unsigned char first = static_cast<unsigned char>(bytes[at]);
        unsigned least = 0;
        const std::size_t length = CharacterLength(first, least);
        if (length == 0 || bytes.size() - at < length) {
            return false;
        }
        unsigned value = length == 1 ? first : first & (0x7fU >> length);
        for (std::size_t i = 1; i < length; ++i) {
            const unsigned char next = static_cast<unsigned char>(bytes[at + i]);
            if ((next & 0xc0U) != 0x80U) {
                return false;
            }
            value = value << 6 | (next & 0x3fU);
        }
        if (value < least || value > 0x10ffff || (value >= 0xd800 && value < 0xe000)) {
            return false;
        }
        at += length;
    }
    return true;
}

}  // namespace cli
