// SPDX-License-Identifier: Apache-2.0
#include "Credentials.h"

#include "base/Text.h"

namespace agent {

namespace {

const std::size_t kLongestName = 255;

Refusal Malformed(const char* why) {
    return Refusal{std::string("the file of credentials ") + why, SR_RULE_NO_FOUND};
}

// As strict as the grammar: the value becomes one of the mount's options.
bool IsPlain(const std::string& value, const char* marks) {
    return IsMadeOf(value, (std::string(kAlnum) + marks).c_str()) && value[0] != '-' &&
           value.size() <= kLongestName;
}

// At the first '=' only: a password may hold others, and blanks at its end are its own. The last
// line that names a thing counts, as it does for the tool.
void TakeLine(std::string line, Credentials& credentials) {
    line.erase(0, line.find_first_not_of(" \t"));
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return;
    }
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (key == "username" || key == "user") {
        credentials.user = value;
    } else if (key == "password" || key == "pass") {
        credentials.password = value;
    } else if (key == "domain" || key == "dom") {
        credentials.domain = value;
    }
}

}  // namespace

Result<Credentials> ReadCredentials(const std::string& text) {
    if (text.size() > kLargestCredentials) {
        return Malformed("is larger than 4096 bytes");
    }
    // The tool would take it for the end, and see another password than this does.
    if (text.find('\0') != std::string::npos) {
        return Malformed("holds a NUL");
    }
    Credentials found;
    for (const std::string& line : Split(text, '\n')) {
        TakeLine(line, found);
    }
    if (found.password.empty()) {
        return Malformed("has no line 'password='");
    }
    if (!found.user.empty() && !IsPlain(found.user, "._$@-")) {
        return Malformed("has a malformed user");
    }
    if (!found.domain.empty() && !IsPlain(found.domain, "._-")) {
        return Malformed("has a malformed domain");
    }
    return found;
}

}  // namespace agent
