// SPDX-License-Identifier: Apache-2.0
// The matcher of globs is written here, since fnmatch(3) goes by the locale and knows more than
// rules mean; regular expressions are RE2's, whose time grows with the text only.
#include "Pattern.h"

#include <algorithm>

#ifdef SENTREL_RE2
#include <re2/re2.h>
#endif

#include "base/Text.h"

namespace agent {

namespace {

const std::string::size_type kNone = std::string::npos;
const char kBelow[] = "/**";

bool EndsBelow(const std::string& glob) {
    return glob.size() >= 3 && glob.compare(glob.size() - 3, 3, kBelow) == 0;
}

// Behind the character that begins at `at`, which may have several bytes.
std::size_t NextCharacter(const std::string& text, std::size_t at) {
    do {
        ++at;
    } while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80);
    return at;
}

// Whether a glob without "/**" takes all of `field`.
//
// One step back to the last '*' is enough: where no wildcard takes a '/', the parts between slashes
// match one by one, and in a part the first place where the rest fits is as good as any later one.
// Where they do (`overSlashes`), the whole is one such part. The time is at most the product of the
// two lengths.
bool MatchGlob(const std::string& glob, const std::string& field, bool overSlashes = false) {
    const auto taken = [&](std::size_t at) { return overSlashes || field[at] != '/'; };
    std::size_t g = 0;
    std::size_t f = 0;
    std::size_t star = kNone;
    std::size_t starField = 0;
    while (f < field.size()) {
        if (g < glob.size() && glob[g] == '*') {
            star = g++;
            starField = f;
        } else if (g < glob.size() && glob[g] == '?' && taken(f)) {
            ++g;
            f = NextCharacter(field, f);
        } else if (g < glob.size() && glob[g] != '?' && glob[g] == field[f]) {
            ++g;
            ++f;
        } else if (star != kNone && taken(starField)) {
            starField = NextCharacter(field, starField);
            f = starField;
            g = star + 1;
        } else {
            return false;
        }
    }
    while (g < glob.size() && glob[g] == '*') {
        ++g;
    }
    return g == glob.size();
}

// "DIR/**": DIR must match the field up to one of its slashes, and something must follow.
bool MatchBelow(const std::string& directory, const std::string& field) {
    for (std::size_t slash = field.find('/'); slash != kNone; slash = field.find('/', slash + 1)) {
        if (slash + 1 < field.size() && MatchGlob(directory, field.substr(0, slash))) {
            return true;
        }
    }
    return false;
}

bool Replace(std::string& text, const std::string& name, const std::string& value) {
    for (std::size_t at = text.find(name); at != kNone; at = text.find(name, at)) {
        if (value.empty()) {
            return false;
        }
        text.replace(at, name.size(), value);
    }
    return true;
}

}  // namespace

std::optional<std::string> Expand(const std::string& text, const Variables& variables) {
    std::string expanded = text;
    if (!Replace(expanded, "%uid", variables.uid) || !Replace(expanded, "%gid", variables.gid)) {
        return std::nullopt;
    }
    return expanded;
}

Pattern::Pattern(Kind kind_, const std::string& text_) : kind(kind_), text(text_) {
    if (text.empty() && kind != kTextGlob) {
        error = "the pattern is empty";
    } else {
        Compile();
    }
}

void Pattern::Compile() {
    if (kind == kGlob) {
        const std::size_t doubled = text.find("**");
        if (doubled != kNone && !(EndsBelow(text) && doubled == text.size() - 2)) {
            error = "'**' can only be the end '/**' of a pattern";
        }
    } else if (kind == kRegex) {
        if (text.size() > kLongestRegex) {
            error = "the regular expression is longer than 1024 characters";
            return;
        }
#ifdef SENTREL_RE2
        re2::RE2::Options options;
        options.set_max_mem(kRegexMemory);
        options.set_log_errors(false);
        options.set_never_capture(true);
        const auto compiled = std::make_shared<const re2::RE2>(text, options);
        if (compiled->ok()) {
            regex = compiled;
        } else {
            error = "the regular expression does not compile: " + compiled->error();
        }
#else
        error = "regular expressions are not built in";
#endif
    }
}

bool Pattern::IsLiteral() const {
    return kind == kExact || (kind == kGlob && GetFixedPart() == text);
}

std::string Pattern::GetFixedPart() const {
    if (kind == kRegex) {
        return "";
    }
    if (kind == kExact) {
        return text;
    }
    const std::size_t wild =
        std::min(text.find_first_of("*?"), std::min(text.find("%uid"), text.find("%gid")));
    return text.substr(0, wild);
}

bool Pattern::Matches(const std::string& field, const Variables& variables) const {
    if (!error.empty()) {
        return false;
    }
    if (kind == kExact) {
        return field == text;
    }
#ifdef SENTREL_RE2
    if (kind == kRegex) {
        return re2::RE2::FullMatch(field, *regex);
    }
#endif
    if (kind == kTextGlob) {
        return MatchGlob(text, field, true);
    }
    const std::optional<std::string> glob = kind == kGlob ? Expand(text, variables) : std::nullopt;
    if (!glob) {
        return false;
    }
    return EndsBelow(*glob) ? MatchBelow(glob->substr(0, glob->size() - 3), field)
                            : MatchGlob(*glob, field);
}

}  // namespace agent
