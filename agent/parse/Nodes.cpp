// SPDX-License-Identifier: Apache-2.0
// Numbers and modes are read as mknod(1) reads them. A mode has permission bits only, so that no
// node comes with set-user-id.
#include "Nodes.h"

#include "Field.h"
#include "base/Text.h"

namespace agent {

namespace {

// 0x for hexadecimal, a leading 0 for octal.
std::optional<unsigned> ReadNumber(const std::string& text, unsigned most) {
    const bool hex = StartsWith(text, "0x") || StartsWith(text, "0X");
    const bool octal = !hex && text.size() > 1 && text[0] == '0';
    const std::string_view digits = std::string_view(text).substr(hex ? 2 : 0);
    const std::optional<unsigned> value = ToNumber<unsigned>(digits, hex ? 16 : octal ? 8 : 10);
    return value && *value <= most && digits.size() <= 9 ? value : std::nullopt;
}

Check StoreKind(Request& request, const std::string& value) {
    if (!IsOneOf(value, {"b", "c", "u", "p"})) {
        return Refusal{"the kind of a node is b, c or p"};
    }
    request.kind = value == "u" ? "c" : value;
    return Fine();
}

// `parameters` keeps the two numbers' presence until FinishNode has looked.
template <unsigned Request::*number, unsigned most>
Check StoreNumber(Request& request, const std::string& value) {
    const std::optional<unsigned> read = ReadNumber(value, most);
    if (!read) {
        const std::string which = most == kMostMajor ? "major" : "minor";
        return Refusal{"the " + which + " number is malformed or above " + std::to_string(most)};
    }
    request.parameters.push_back(value);
    request.*number = *read;
    return Fine();
}

Check StoreMode(Request& request, const std::string& value) {
    if (request.mode != -1) {
        return Refusal{"the mode is given twice"};
    }
    const std::optional<unsigned> mode = ToNumber<unsigned>(value, 8);
    if (!mode || value.size() > 4) {
        return Refusal{"the mode is not an octal number"};
    }
    if (*mode > 0777) {
        return Refusal{"the mode has more than the permission bits"};
    }
    request.mode = static_cast<int>(*mode);
    return Fine();
}

Check FinishNode(Request& request) {
    const std::size_t expected = request.kind == "p" ? 0 : 2;
    if (request.parameters.size() != expected) {
        return Refusal{expected == 0 ? "a pipe has no major and minor number"
                                     : "the major and the minor number are needed"};
    }
    request.parameters.clear();
    return Fine();
}

}  // namespace

Grammars NodeGrammars() {
    return {{Operation::kMknod,
             {{'m', "mode", true, nullptr, StoreMode}},
             {{"a path", 1, 1, StorePath},
              {"a kind", 1, 1, StoreKind},
              {"a major number", 0, 1, StoreNumber<&Request::majorNumber, kMostMajor>},
              {"a minor number", 0, 1, StoreNumber<&Request::minorNumber, kMostMinor>}},
             FinishNode,
             AddNothing}};
}

}  // namespace agent
