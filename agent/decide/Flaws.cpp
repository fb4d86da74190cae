// SPDX-License-Identifier: Apache-2.0
// What a request can hold is what the parser lets in, so its checks are asked here too: of a
// pattern that only one text can match, that text must pass them.
#include "Flaws.h"

#include "base/Text.h"
#include "parse/Field.h"
#include "parse/Mounts.h"
#include "parse/Shares.h"
#include "parse/Units.h"

namespace agent {

namespace {

// The reason of a check that a literal does not pass.
std::string Refused(const Pattern& pattern, Check (*check)(const std::string&)) {
    if (!pattern.IsLiteral()) {
        return "";
    }
    const Check good = check(pattern.GetText());
    return good ? "" : good.Reason();
}

std::string FlawInShareOption(const Pattern& pattern) {
    const std::string& text = pattern.GetText();
    const std::string key = OptionKey(text);
    if (key == "password") {
        return text == "password" ? "" : "a password is only ever allowed as 'password'";
    }
    if (IsOneOf(key, {"pass", "cred", "username", "dom", "workgroup", "addr"})) {
        return "the option is known here as password, credentials, user, domain or ip";
    }
    return key == "user" ? "" : Refused(pattern, CheckOption);
}

}  // namespace

std::string FlawInPath(const Pattern& pattern, Operation /*operation*/) {
    const std::string& text = pattern.GetText();
    if (text[0] != '/' && text[0] != '*' && text[0] != '?') {
        return "no path begins like this";
    }
    if (text[0] == '*' || text[0] == '?') {
        return "a wildcard does not match the '/' at the beginning of a path";
    }
    if (text.size() > 1 && text.back() == '/') {
        return "no path ends in '/'";
    }
    if (text.find("//") != std::string::npos || text.find("/../") != std::string::npos ||
        text.find("/./") != std::string::npos || EndsWith(text, "/..") || EndsWith(text, "/.")) {
        return "no path holds '//', '/./' or '/../'";
    }
    return "";
}

std::string FlawInSource(const Pattern& pattern, Operation operation) {
    const std::string& text = pattern.GetText();
    if (RowOf(operation).mounts == MountChange::kAddsShare) {
        return StartsWith(text, "//") ? Refused(pattern, CheckShare)
                                      : "a share is written //HOST/SHARE";
    }
    if (text.find('/') == std::string::npos) {
        return text.find('=') == std::string::npos ? "" : "no source is a tag";
    }
    return text.find(":/") == std::string::npos ? FlawInPath(pattern, operation) : "";
}

std::string FlawInType(const Pattern& pattern, Operation /*operation*/) {
    return Refused(pattern, CheckType);
}

std::string FlawInModule(const Pattern& pattern, Operation /*operation*/) {
    return pattern.GetText().find('-') == std::string::npos
               ? ""
               : "a module's name has '_' where its file has '-'";
}

std::string FlawInUnit(const Pattern& pattern, Operation /*operation*/) {
    const std::string why = Refused(pattern, CheckUnit);
    return why.empty() ? "" : why + " (it needs its suffix, as in x.service)";
}

std::string FlawInOption(const Pattern& pattern, Operation operation) {
    switch (RowOf(operation).mounts) {
        case MountChange::kAddsLocal:
            return Refused(pattern, CheckOption);
        case MountChange::kAddsShare:
            return FlawInShareOption(pattern);
        default:
            return StartsWith(pattern.GetText(), "-") ? "a flag is written without its '-'" : "";
    }
}

}  // namespace agent
