// SPDX-License-Identifier: Apache-2.0
// What the agent has told: an answer of its second interface, which is one JSON text. Whoever sent
// it is not trusted: what is malformed, too large or nested too deeply is refused, with a reason.
// Value types.
#ifndef SENTREL_CLI_TOLD_H
#define SENTREL_CLI_TOLD_H

#include <optional>
#include <string>
#include <vector>

namespace cli {

struct Field {
    std::string name;
    // A text as it is; a number, true or false as it is written; empty for all else.
    std::string text;
    std::optional<long long> number;                // where it is one
    std::optional<std::vector<std::string> > list;  // where it is one: the text of each element
};

// In the order in which they came; names may be unknown.
typedef std::vector<Field> Fields;

// Null when there is none.
const Field* FindField(const Fields& fields, const std::string& name);
// The text of that field, empty when there is none.
std::string TextOf(const Fields& fields, const std::string& name);

struct Told {
    enum Shape { kObject, kObjects };  // one object, or a list of objects

    std::string error;            // why it cannot be read; empty when all else holds
    std::string line;             // the same again, for a program
    std::vector<Fields> objects;  // exactly one for kObject

    static Told Read(const std::string& bytes, Shape expected);
};

}  // namespace cli

#endif
