// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <cstdio>

namespace agent {

namespace {

// Bytes of the well-formed character at `at`; 0 when there is none.
std::size_t CharacterLength(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned lead = byte(at);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4) {
        return 0;
    }
    unsigned code = lead & (0xffU >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xc0U) != 0x80U) {
            return 0;
        }
        code = (code << 6) | (byte(at + i) & 0x3fU);
    }
    static const unsigned kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < kSmallest[length] || surrogate || code > 0x10ffff ? 0 : length;
}

}  // namespace

std::string JsonText(const std::string& text) {
    std::string json = "\"";
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = CharacterLength(text, at);
        if (length == 0) {
            json += "\xef\xbf\xbd";
            ++at;
            continue;
        }
        const char letter = text[at];
        if (length == 1 && (static_cast<unsigned char>(letter) < 0x20 || letter == 0x7f)) {
            char escape[8];
            (void)std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(letter));
            json += escape;
        } else {
            json += letter == '"' || letter == '\\' ? "\\" : "";
            json.append(text, at, length);
        }
        at += length;
    }
    return json + "\"";
}

std::string JsonList(const std::vector<std::string>& values) {
    std::string json = "[";
    for (const std::string& value : values) {
        json += (json.size() > 1 ? "," : "") + value;
    }
    return json + "]";
}

std::string JsonTexts(const std::vector<std::string>& texts) {
    std::vector<std::string> values;
    values.reserve(texts.size());
    for (const std::string& text : texts) {
        values.push_back(JsonText(text));
    }
    return JsonList(values);
}

}  // namespace agent
