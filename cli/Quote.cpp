// SPDX-License-Identifier: Apache-2.0
#include "Quote.h"

#include <cstring>

#include "Text.h"

namespace cli {

namespace {

bool IsPlain(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || (c != '\0' && std::strchr("_-+=.,:/@%", c) != nullptr);
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
        unsigned value = 0;
        const std::size_t length = CharacterAt(bytes, at, value);
        if (length == 0 || value == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

}  // namespace cli
