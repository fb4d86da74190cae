// SPDX-License-Identifier: Apache-2.0
// What a rule says about one field: a glob, an exact text or a regular expression. And what a table
// of answers says about a whole argument text: a text glob.
//
// A pattern always matches the whole field. In a glob '*' is any run of characters without '/',
// '?' is one character but '/', and a "/**" at the end is anything below a directory (at least one
// more character); nothing else is special, and "**" anywhere else is an error. %uid and %gid in a
// glob stand for the caller's numbers. In a text glob '*' is any run of characters and '?' any one,
// '/' included, and nothing else is special. Copyable value type; matching is safe from any thread.
#ifndef SENTREL_AGENT_PATTERN_H
#define SENTREL_AGENT_PATTERN_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#ifdef SENTREL_RE2
namespace re2 {
class RE2;
}
#endif

namespace agent {

// The caller's numbers as decimal text; empty when not known, and then nothing with them matches.
struct Variables {
    std::string uid;
    std::string gid;
};

// `text` with %uid and %gid put in. Nothing when one of them is needed and not known.
std::optional<std::string> Expand(const std::string& text, const Variables& variables);

class Pattern {
public:
    enum Kind { kGlob, kExact, kRegex, kTextGlob };

    static constexpr std::size_t kLongestRegex = 1024;
    static constexpr int kRegexMemory = 1 << 20;

    Pattern(Kind kind_, const std::string& text_);

    Kind GetKind() const { return kind; }
    const std::string& GetText() const { return text; }
    // Why it does not compile; empty when it does.
    const std::string& GetError() const { return error; }
    // One text only can match: no wildcard, no variable, no regular expression.
    bool IsLiteral() const;
    // The text before the first wildcard or variable; empty for a regular expression.
    std::string GetFixedPart() const;

    // A pattern that does not compile matches nothing.
    bool Matches(const std::string& field, const Variables& variables) const;

private:
    void Compile();

    Kind kind;
    std::string text;
    std::string error;
#ifdef SENTREL_RE2
    std::shared_ptr<const re2::RE2> regex;
#endif
};

}  // namespace agent

#endif
