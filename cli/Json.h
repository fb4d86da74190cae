// SPDX-License-Identifier: Apache-2.0
// JSON values: made and written for programs that read the command's output, and read from the
// agent's answers. What is written is ASCII apart from well-formed text without control characters,
// so it is safe on a terminal too. Value type.
#ifndef SENTREL_CLI_JSON_H
#define SENTREL_CLI_JSON_H

#include <string>
#include <utility>
#include <vector>

namespace cli {

class Json {
public:
    enum Kind { kNull, kBool, kNumber, kText, kList, kObject };
    typedef std::vector<std::pair<std::string, Json> > Members;

    Json() = default;  // null
    static Json Text(const std::string& bytes) { return Json(kText, bytes); }
    static Json Number(long long number) { return Json(kNumber, std::to_string(number)); }
    static Json Bool(bool value) { return Json(kBool, value ? "true" : "false"); }
    static Json List() { return Json(kList, ""); }
    static Json Object() { return Json(kObject, ""); }

    // Appends to a list or an object; returns this value.
    Json& Add(const Json& element) { return Add("", element); }
    Json& Add(const std::string& name, const Json& value);

    // False, with `value` unspecified, for what is not exactly one JSON text or nested too deeply.
    static bool Parse(const std::string& bytes, Json& value);
    // One line. Bytes that are no character become U+FFFD.
    std::string Write() const;

    Kind GetKind() const { return kind; }
    // A text's content; a number, true or false as it was written.
    const std::string& Content() const { return content; }
    // Of an object; of a list, with empty names.
    const Members& GetMembers() const { return members; }
    // Null when there is none.
    const Json* Find(const std::string& name) const;
    // The content of that member, empty when there is none.
    std::string Field(const std::string& name) const;

private:
    Json(Kind which, std::string text) : kind(which), content(std::move(text)) {}

    Kind kind = kNull;
    std::string content;
    Members members;
};

}  // namespace cli

#endif
