// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <cstdio>
#include <cstring>

#include "Text.h"

namespace cli {

namespace {

const int kDeepest = 32;

void AppendEscape(std::string& text, unsigned unit) {
    char escape[16];
    (void)std::snprintf(escape, sizeof(escape), "\\u%04x", unit);
    text += escape;
}

std::string Quoted(const std::string& bytes) {
    std::string text = "\"";
    for (std::size_t at = 0; at < bytes.size();) {
        unsigned value = 0;
        const std::size_t length = CharacterAt(bytes, at, value);
        if (length == 0) {
            AppendEscape(text, 0xfffd);
        } else if (value == '"' || value == '\\') {
            text += '\\';
            text += bytes[at];
        } else if (value == '\n') {
            text += "\\n";
        } else if (IsControl(value)) {
            AppendEscape(text, value);
        } else {
            text.append(bytes, at, length);
        }
        at += length == 0 ? 1 : length;
    }
    return text + '"';
}

void AppendCharacter(std::string& text, unsigned value) {
    const auto add = [&text](unsigned byte) { text += static_cast<char>(byte); };
    if (value < 0x80) {
        add(value);
    } else if (value < 0x800) {
        add(0xc0U | value >> 6U);
        add(0x80U | (value & 0x3fU));
    } else if (value < 0x10000) {
        add(0xe0U | value >> 12U);
        add(0x80U | (value >> 6U & 0x3fU));
        add(0x80U | (value & 0x3fU));
    } else {
        add(0xf0U | value >> 18U);
        add(0x80U | (value >> 12U & 0x3fU));
        add(0x80U | (value >> 6U & 0x3fU));
        add(0x80U | (value & 0x3fU));
    }
}

// Recursive descent; each function is false at the first thing that is not JSON.
class Reader {
public:
    explicit Reader(const std::string& text) : bytes(text) {}

    bool ReadAll(Json& value) { return ReadValue(value, 0) && (SkipBlanks(), at == bytes.size()); }

private:
    void SkipBlanks() {
        while (at < bytes.size() && std::strchr(" \t\r\n", bytes[at]) != nullptr && bytes[at]) {
            ++at;
        }
    }
    // The next character that is no blank, 0 at the end.
    char Peek() {
        SkipBlanks();
        return at < bytes.size() ? bytes[at] : '\0';
    }
    bool Take(char c) { return Peek() == c && (++at, true); }
    bool TakeWord(const char* word) {
        const std::size_t length = std::strlen(word);
        return bytes.compare(at, length, word) == 0 && (at += length, true);
    }

    bool ReadValue(Json& value, int depth) {
        std::string text;
        switch (Peek()) {
            case '{':
            case '[':
                return depth < kDeepest && ReadMembers(value, depth, Peek() == '{');
            case '"':
                return ReadText(text) && (value = Json::Text(text), true);
            case 't':
                return TakeWord("true") && (value = Json::Bool(true), true);
            case 'f':
                return TakeWord("false") && (value = Json::Bool(false), true);
            case 'n':
                return TakeWord("null") && (value = Json(), true);
            default:
                return ReadNumber(value);
        }
    }

    bool ReadMembers(Json& value, int depth, bool object) {
        value = object ? Json::Object() : Json::List();
        const char end = object ? '}' : ']';
        ++at;
        if (Take(end)) {
            return true;
        }
        do {
            std::string name;
            Json member;
            if ((object && !(Peek() == '"' && ReadText(name) && Take(':'))) ||
                !ReadValue(member, depth + 1)) {
                return false;
            }
            (void)value.Add(name, member);
        } while (Take(','));
        return Take(end);
    }

    // Integers only: the agent's answers hold no others.
    bool ReadNumber(Json& value) {
        const std::size_t start = at;
        at += Peek() == '-' ? 1 : 0;
        const std::size_t digits = at;
        while (at < bytes.size() && bytes[at] >= '0' && bytes[at] <= '9') {
            ++at;
        }
        const std::size_t count = at - digits;
        if (count == 0 || count > 18 || (count > 1 && bytes[digits] == '0')) {
            return false;
        }
        value = Json::Number(std::stoll(bytes.substr(start, at - start)));
        return true;
    }

    bool ReadText(std::string& text) {
        for (++at; at < bytes.size() && bytes[at] != '"';) {
            if (static_cast<unsigned char>(bytes[at]) < 0x20) {
                return false;
            }
            if (bytes[at] != '\\') {
                text += bytes[at++];
            } else if (!ReadEscape(text)) {
                return false;
            }
        }
        return at++ < bytes.size();
    }

    bool ReadEscape(std::string& text) {
        static const char kLetters[] = "\"\\/bfnrt";
        static const char kMeant[] = "\"\\/\b\f\n\r\t";
        const char letter = at + 1 < bytes.size() ? bytes[at + 1] : '\0';
        if (letter == 'u') {
            return ReadCodePoint(text);
        }
        const char* found = letter != '\0' ? std::strchr(kLetters, letter) : nullptr;
        if (found == nullptr) {
            return false;
        }
        text += kMeant[found - kLetters];
        at += 2;
        return true;
    }

    bool ReadCodePoint(std::string& text) {
        unsigned value = 0;
        if (!ReadUnit(value)) {
            return false;
        }
        unsigned low = 0;
        if (value >= 0xd800 && value < 0xdc00) {
            if (!ReadUnit(low) || low < 0xdc00 || low >= 0xe000) {
                return false;
            }
            value = 0x10000 + ((value - 0xd800) << 10U) + (low - 0xdc00);
        } else if (value >= 0xdc00 && value < 0xe000) {
            return false;
        }
        AppendCharacter(text, value);
        return true;
    }

    // \uXXXX
    bool ReadUnit(unsigned& value) {
        if (bytes.compare(at, 2, "\\u") != 0 || bytes.size() - at < 6) {
            return false;
        }
        const std::string digits = bytes.substr(at + 2, 4);
        if (digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return false;
        }
        value = static_cast<unsigned>(std::stoul(digits, nullptr, 16));
        at += 6;
        return true;
    }

    const std::string& bytes;
    std::size_t at = 0;
};

}  // namespace

Json& Json::Add(const std::string& name, const Json& value) {
    members.emplace_back(name, value);
    return *this;
}

bool Json::Parse(const std::string& bytes, Json& value) {
    return Reader(bytes).ReadAll(value);
}

std::string Json::Write() const {
    if (kind == kNull) {
        return "null";
    }
    if (kind == kText) {
        return Quoted(content);
    }
    if (kind != kList && kind != kObject) {
        return content;
    }
    std::string text(1, kind == kList ? '[' : '{');
    for (const auto& member : members) {
        text += text.size() > 1 ? "," : "";
        text += kind == kList ? "" : Quoted(member.first) + ":";
        text += member.second.Write();
    }
    return text + (kind == kList ? ']' : '}');
}

const Json* Json::Find(const std::string& name) const {
    for (const auto& member : members) {
        if (kind == kObject && member.first == name) {
            return &member.second;
        }
    }
    return nullptr;
}

std::string Json::Field(const std::string& name) const {
    const Json* found = Find(name);
    return found != nullptr ? found->content : "";
}

}  // namespace cli
