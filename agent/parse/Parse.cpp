// SPDX-License-Identifier: Apache-2.0
// How a text becomes a request:
//
//     the operation's name -> its grammar    none: SR_FEATURE_ISNT_IMPLEMENTED
//     the text -> words                      Words.h; fails on an open quote, a control character
//     words that begin with '-' -> fields    by the grammar's options, in the order of the words
//     the other words -> fields              by its operands, in the order of both
//     all fields together                    what `finish` has to say
//
// The first step that refuses ends it, with one sentence and SR_FAIL; none of them repeats a
// secret. Every word passes exactly one Store function on its way into the request, and that
// function is where the word is checked: behind it stands nothing that a tool could take for an
// option, no relative path, and no "..".
//
// A new option is a row in the grammar of its operation, in the file of its family (Mounts, Shares,
// Nodes, Modules, Units), with a Store function above it; a new operation is a new grammar there. A
// new family adds its grammars to AllGrammars() below. What a Store function fills must be a field
// that the rules look at (decide/Fields.cpp), or no rule can say anything about it.
#include "Parse.h"

#include "Field.h"
#include "Grammar.h"
#include "Modules.h"
#include "Mounts.h"
#include "Nodes.h"
#include "Shares.h"
#include "Units.h"
#include "Words.h"
#include "base/Text.h"

namespace agent {

namespace {

const Grammars& AllGrammars() {
    static const Grammars kAll = [] {
        Grammars all;
        for (const auto family :
             {MountGrammars, ShareGrammars, NodeGrammars, ModuleGrammars, UnitGrammars}) {
            const Grammars grammars = family();
            all.insert(all.end(), grammars.begin(), grammars.end());
        }
        return all;
    }();
    return kAll;
}

const Grammar* FindGrammar(Operation operation) {
    for (const Grammar& grammar : AllGrammars()) {
        if (grammar.operation == operation) {
            return &grammar;
        }
    }
    return nullptr;
}

class Reader {
public:
    Reader(const Grammar& grammar_, const std::vector<std::string>& words_)
        : grammar(grammar_), words(words_) {}

    Result<Request> Read() {
        request.operation = grammar.operation;
        Check good = ReadWords();
        good = good ? ReadOperands() : good;
        good = good ? grammar.finish(request) : good;
        if (!good) {
            return good.GetRefusal();
        }
        return request;
    }

private:
    static Refusal Unknown(const std::string& option) {
        return {"the option " + Quote(option) + " is not available"};
    }

    Check ReadWords() {
        bool optionsOver = false;
        while (next < words.size()) {
            const std::string& word = words[next++];
            Check good = Fine();
            if (optionsOver || word.empty() || word[0] != '-') {
                operands.push_back(word);
            } else if (word == "--") {
                optionsOver = true;
            } else {
                good = StartsWith(word, "--") ? ReadLong(word) : ReadShort(word);
            }
            if (!good) {
                return good;
            }
        }
        return Fine();
    }

    // The value of an option that has none in its own word.
    Check StoreNext(const OptionRow& row, const std::string& option) {
        if (next == words.size()) {
            return Refusal{"the option " + Quote(option) + " needs a value"};
        }
        return row.store(request, words[next++]);
    }

    // Whole names only: an abbreviation may mean something else in another version of a tool.
    Check ReadLong(const std::string& word) {
        const std::string name = OptionKey(word.substr(2));
        const bool hasValue = name.size() + 2 < word.size();
        for (const OptionRow& row : grammar.options) {
            if (name != row.word) {
                continue;
            }
            if (row.takesValue) {
                return hasValue ? row.store(request, OptionValue(word))
                                : StoreNext(row, "--" + name);
            }
            if (hasValue) {
                return Refusal{"the option '--" + name + "' takes no value"};
            }
            return row.store(request, row.stored);
        }
        return Unknown("--" + name);
    }

    Check ReadShort(const std::string& word) {
        if (word.size() == 1) {
            return Refusal{"a lone '-' is no argument here"};
        }
        for (std::size_t i = 1; i < word.size(); ++i) {
            const std::string name = std::string("-") + word[i];
            const OptionRow* const row = FindShort(word[i]);
            if (row == nullptr) {
                return Unknown(name);
            }
            if (row->takesValue) {
                const std::string rest = word.substr(i + 1);
                return rest.empty() ? StoreNext(*row, name) : row->store(request, rest);
            }
            if (Check stored = row->store(request, row->stored); !stored) {
                return stored;
            }
        }
        return Fine();
    }

    const OptionRow* FindShort(char letter) const {
        for (const OptionRow& row : grammar.options) {
            if (row.letter != 0 && row.letter == letter) {
                return &row;
            }
        }
        return nullptr;
    }

    Check ReadOperands() {
        std::size_t at = 0;
        for (const OperandRow& row : grammar.operands) {
            std::size_t count = 0;
            for (; count < row.most && at < operands.size(); ++count, ++at) {
                if (operands[at].empty() || operands[at][0] == '-') {
                    return Refusal{"an argument is empty or begins with '-'"};
                }
                if (Check stored = row.store(request, operands[at]); !stored) {
                    return stored;
                }
            }
            if (count < row.least) {
                return Refusal{std::string(row.what) + " is missing"};
            }
        }
        if (at != operands.size()) {
            return Refusal{"there are too many arguments"};
        }
        return Fine();
    }

    const Grammar& grammar;
    const std::vector<std::string>& words;
    std::vector<std::string> operands;
    std::size_t next = 0;
    Request request;
};

Result<Request> Read(const std::string& operation, const Result<std::vector<std::string>>& words) {
    const std::optional<Operation> known = FindOperation(operation);
    const Grammar* const grammar = known ? FindGrammar(*known) : nullptr;
    if (grammar == nullptr) {
        return Refusal{"there is no such operation", SR_FEATURE_ISNT_IMPLEMENTED};
    }
    return words ? Reader(*grammar, *words).Read() : words.GetRefusal();
}

}  // namespace

Parsed Parse(const std::string& operation, const std::string& text) {
    Parsed parsed;
    const Result<std::vector<std::string>> words = SplitWords(text);
    const Result<Request> request = Read(operation, words);
    if (words) {
        parsed.words = *words;
    }
    if (request) {
        parsed.status = SR_OK;
        parsed.request = *request;
    } else {
        parsed.status = request.Status();
        parsed.error = request.Reason();
    }
    return parsed;
}

Check CheckAddition(Operation operation, const std::string& option) {
    const Grammar* const grammar = FindGrammar(operation);
    return grammar == nullptr ? Refusal{"there is no such operation"}
                              : grammar->checkAddition(option);
}

}  // namespace agent
