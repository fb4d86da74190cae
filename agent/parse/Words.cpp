// SPDX-License-Identifier: Apache-2.0
// One walk over the bytes: a word ends at a blank outside quotes, or with the text.
#include "Words.h"

#include <utility>

#include "base/Text.h"

namespace agent {

namespace {

class Splitter {
public:
    Check Run(const std::string& text) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            if (c == '\\' && quote != '\'') {
                if (i + 1 == text.size()) {
                    return Refusal{"the arguments end in a backslash"};
                }
                TakeEscaped(text[i + 1], i);
            } else {
                Take(c);
            }
        }
        if (quote != 0) {
            return Refusal{"a quote is left open"};
        }
        EndWord();
        return Fine();
    }

    std::vector<std::string> words;

private:
    void TakeEscaped(char next, std::size_t& i) {
        inWord = true;
        const bool special = next == '"' || next == '\\' || next == '$' || next == '`';
        if (quote == '"' && !special) {
            word += '\\';
            return;
        }
        word += next;
        ++i;
    }

    void Take(char c) {
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == ' ' || c == '\t') {
            EndWord();
        } else {
            word += c;
            inWord = true;
        }
    }

    void EndWord() {
        if (inWord) {
            words.push_back(word);
        }
        word.clear();
        inWord = false;
    }

    std::string word;
    bool inWord = false;
    char quote = 0;
};

}  // namespace

Result<std::vector<std::string>> SplitWords(const std::string& text) {
    if (text.size() > kLongestText) {
        return Refusal{"the arguments are longer than 8192 bytes"};
    }
    Splitter splitter;
    if (const Check whole = splitter.Run(text); !whole) {
        return whole.GetRefusal();
    }
    if (splitter.words.size() > kMostWords) {
        return Refusal{"there are more than 64 arguments"};
    }
    for (const std::string& word : splitter.words) {
        if (HasControl(word)) {
            return Refusal{"the arguments hold a control character"};
        }
    }
    return std::move(splitter.words);
}

}  // namespace agent
