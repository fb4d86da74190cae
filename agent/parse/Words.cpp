// SPDX-License-Identifier: Apache-2.0
// See Words.h.
#include "Words.h"

#include "base/Text.h"

namespace agent {

namespace {

class Splitter {
public:
    bool Run(const std::string& text, std::string& error) {
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            if (c == '\\' && quote != '\'') {
                if (i + 1 == text.size()) {
                    error = "the arguments end in a backslash";
                    return false;
                }
                TakeEscaped(text[i + 1], i);
            } else {
                Take(c);
            }
        }
        if (quote != 0) {
            error = "a quote is left open";
            return false;
        }
        EndWord();
        return true;
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

bool SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error) {
    if (text.size() > kLongestText) {
        error = "the arguments are longer than 8192 bytes";
        return false;
    }
    Splitter splitter;
    if (!splitter.Run(text, error)) {
        return false;
    }
    if (splitter.words.size() > kMostWords) {
        error = "there are more than 64 arguments";
        return false;
    }
    for (const std::string& word : splitter.words) {
        if (HasControl(word)) {
            error = "the arguments hold a control character";
            return false;
        }
    }
    words.swap(splitter.words);
    return true;
}

}  // namespace agent
