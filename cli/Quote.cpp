// SPDX-License-Identifier: Apache-2.0
#include "Quote.h"

#include <sentrel/Arguments.h>
#include <utf8.h>

namespace cli {

std::string JoinQuoted(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + sentrel::Arguments::Quote(word);
    }
    return text;
}

bool IsText(const std::string& bytes) {
    return bytes.find('\0') == std::string::npos && utf8::is_valid(bytes.begin(), bytes.end());
}

}  // namespace cli
