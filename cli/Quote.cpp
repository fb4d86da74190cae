// SPDX-License-Identifier: Apache-2.0
#include "Quote.h"

#include <sentrel/Arguments.h>

#include "Text.h"

namespace cli {

std::string JoinQuoted(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + sentrel::Arguments::Quote(word);
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
