// SPDX-License-Identifier: Apache-2.0
#include "Words.h"

#include <cstring>

namespace agent {

namespace {

const char kAfterBackslashInQuotes[] = "\"\\$`";

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

bool IsControl(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

class Splitter {
public:
    explicit Splitter(const std::string& given) : text(given), at(0), problem(nullptr) {}

    // Null when all is well.
    const char* Split(std::vector<std::string>& words) {
        for (;;) {
            while (at < text.size() && IsBlank(text[at])) {
                ++at;
            }
            if (at == text.size()) {
                return nullptr;
            }
            if (words.size() == kMostWords) {
                return "too many words";
            }
            std::string word;
            if (!ReadWord(word)) {
                return problem;
            }
            words.push_back(word);
        }
    }

private:
    bool Fail(const char* reason) {
        problem = reason;
        return false;
    }

    bool Append(std::string& word, char c) {
        if (IsControl(c)) {
            return Fail("a control character");
        }
        word += c;
        return true;
    }

    bool ReadWord(std::string& word) {
        while (at < text.size() && !IsBlank(text[at])) {
            const char c = text[at++];
            bool good = false;
            if (c == '\'') {
                good = ReadSingleQuoted(word);
            } else if (c == '"') {
                good = ReadDoubleQuoted(word);
            } else if (c != '\\') {
                good = Append(word, c);
            } else if (at == text.size()) {
                good = Fail("a backslash at the end");
            } else {
                good = Append(word, text[at++]);
            }
            if (!good) {
                return false;
            }
        }
        return true;
    }

    bool ReadSingleQuoted(std::string& word) {
        while (at < text.size()) {
            const char c = text[at++];
            if (c == '\'') {
                return true;
            }
            if (!Append(word, c)) {
                return false;
            }
        }
        return Fail("a quote that is not closed");
    }

    bool ReadDoubleQuoted(std::string& word) {
        while (at < text.size()) {
            char c = text[at++];
            if (c == '"') {
                return true;
            }
            if (c == '\\' && at < text.size() && text[at] != '\0' &&
                std::strchr(kAfterBackslashInQuotes, text[at]) != nullptr) {
                c = text[at++];
            }
            if (!Append(word, c)) {
                return false;
            }
        }
        return Fail("a quote that is not closed");
    }

    const std::string& text;
    std::size_t at;
    const char* problem;
};

}  // namespace

bool SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error) {
    if (text.size() > kMostBytes) {
        error = "too long";
        return false;
    }
    std::vector<std::string> found;
    const char* problem = Splitter(text).Split(found);
    if (problem != nullptr) {
        error = problem;
        return false;
    }
    words.swap(found);
    return true;
}

}  // namespace agent
