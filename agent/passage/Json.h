// SPDX-License-Identifier: Apache-2.0
// JSON texts for the answers of the second interface. Pure, usable from any thread.
#ifndef SENTREL_AGENT_JSON_H
#define SENTREL_AGENT_JSON_H

#include <string>
#include <vector>

namespace agent {

// A JSON string, always valid UTF-8: a byte that belongs to no character becomes U+FFFD.
std::string JsonText(const std::string& text);

// "[...]" of texts that are JSON already.
std::string JsonList(const std::vector<std::string>& values);
// The same of plain texts.
std::string JsonTexts(const std::vector<std::string>& texts);

class JsonObject {
public:
    JsonObject& Add(const char* key, const std::string& text) { return Put(key, JsonText(text)); }
    JsonObject& Add(const char* key, long long number) { return Put(key, std::to_string(number)); }
    // `json` is JSON already.
    JsonObject& Put(const char* key, const std::string& json) {
        members += (members.empty() ? "" : ",") + JsonText(key) + ":" + json;
        return *this;
    }
    std::string Text() const { return "{" + members + "}"; }

private:
    std::string members;
};

}  // namespace agent

#endif
