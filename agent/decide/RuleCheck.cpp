// SPDX-License-Identifier: Apache-2.0
//
// "Covers" is proved or not: a rule is called unreachable only when each of its fields is covered,
// pattern by pattern, by the same field of one earlier rule. Rules that are unreachable for subtler
// reasons (two earlier rules together, two regular expressions) are not found.
#include "RuleCheck.h"

#include <algorithm>

#include "base/Text.h"
#include "parse/Parse.h"

namespace agent {

namespace {

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Everything that `inner` matches, `outer` matches too.
bool Covers(const Pattern& outer, const Pattern& inner) {
    if (!outer.GetError().empty() || !inner.GetError().empty()) {
        return false;
    }
    if (outer.GetKind() == inner.GetKind() && outer.GetText() == inner.GetText()) {
        return true;
    }
    if (inner.IsLiteral()) {
        return outer.Matches(inner.GetText(), Variables());
    }
    if (outer.GetKind() != Pattern::kGlob || inner.GetKind() != Pattern::kGlob) {
        return false;
    }
    // "/media/**" covers what is fixed to begin with "/media/" and has something behind it.
    const std::string& text = outer.GetText();
    if (EndsWith(text, "/**") && outer.GetFixedPart().size() + 2 == text.size()) {
        const std::string below = outer.GetFixedPart();
        const std::string& other = inner.GetText();
        const bool atLeastOne =
            EndsWith(other, "/**") || other.size() > below.size() + 1 || other.back() != '*';
        return StartsWith(inner.GetFixedPart(), below) && other.size() > below.size() && atLeastOne;
    }
    return text == "*" && inner.GetText().find('/') == std::string::npos;
}

bool Covers(const Patterns& outer, const Patterns& inner) {
    if (!outer.given) {
        return true;
    }
    return inner.given && !inner.list.empty() &&
           std::all_of(inner.list.begin(), inner.list.end(), [&](const Pattern& one) {
               return std::any_of(outer.list.begin(), outer.list.end(),
                                  [&](const Pattern& other) { return Covers(other, one); });
           });
}

// For options and parameters, where "not given" means none, not any.
bool CoversAllowed(const Patterns& outer, const Patterns& inner) {
    return !inner.given || (outer.given && Covers(outer, inner));
}

bool Covers(const Users& outer, const Users& inner) {
    if (outer.any) {
        return true;
    }
    return !inner.any &&
           std::includes(outer.uids.begin(), outer.uids.end(), inner.uids.begin(),
                         inner.uids.end()) &&
           std::includes(outer.gids.begin(), outer.gids.end(), inner.gids.begin(),
                         inner.gids.end());
}

bool Covers(const Numbers& outer, const Numbers& inner) {
    if (outer.ranges.empty()) {
        return true;
    }
    return !inner.ranges.empty() &&
           std::all_of(inner.ranges.begin(), inner.ranges.end(),
                       [&](const std::pair<unsigned, unsigned>& one) {
                           return std::any_of(outer.ranges.begin(), outer.ranges.end(),
                                              [&](const std::pair<unsigned, unsigned>& other) {
                                                  return other.first <= one.first &&
                                                         other.second >= one.second;
                                              });
                       });
}

bool CoversModes(const Rule& outer, const Rule& inner) {
    const std::vector<int> fallback = {0600};
    const std::vector<int>& wide = outer.modes.empty() ? fallback : outer.modes;
    const std::vector<int>& narrow = inner.modes.empty() ? fallback : inner.modes;
    return std::all_of(narrow.begin(), narrow.end(),
                       [&](int mode) { return std::count(wide.begin(), wide.end(), mode) != 0; });
}

bool Covers(const Rule& outer, const Rule& inner) {
    if (outer.operation != inner.operation || !Covers(outer.users, inner.users)) {
        return false;
    }
    static constexpr Patterns Rule::*kFields[] = {&Rule::exe,    &Rule::source, &Rule::target,
                                                  &Rule::type,   &Rule::path,   &Rule::kind,
                                                  &Rule::module, &Rule::verb,   &Rule::units};
    for (const auto field : kFields) {
        if (!Covers(outer.*field, inner.*field)) {
            return false;
        }
    }
    if (!Covers(outer.majors, inner.majors) || !Covers(outer.minors, inner.minors)) {
        return false;
    }
    if (!outer.permit) {
        return true;
    }
    // A permitting rule looks at options, parameters and modes as well, and wants all units; a
    // denying one takes any of those. Only where there is nothing of the kind can it be covered.
    if (!inner.permit) {
        return inner.operation == "sr_rmmod";
    }
    return CoversAllowed(outer.options, inner.options) &&
           CoversAllowed(outer.parameters, inner.parameters) && CoversModes(outer, inner);
}

// ---- patterns that no request can match, whatever comes

std::string BadPath(const Pattern& pattern) {
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

std::string BadShare(const Pattern& pattern) {
    std::string why;
    if (!StartsWith(pattern.GetText(), "//")) {
        return "a share is written //HOST/SHARE";
    }
    return pattern.IsLiteral() && !CheckShare(pattern.GetText(), why) ? why : "";
}

std::string BadSource(const Pattern& pattern) {
    const std::string& text = pattern.GetText();
    if (text.find('/') == std::string::npos) {
        return text.find('=') == std::string::npos ? "" : "no source is a tag";
    }
    return text.find(":/") == std::string::npos ? BadPath(pattern) : "";
}

std::string BadType(const Pattern& pattern) {
    std::string why;
    return pattern.IsLiteral() && !CheckType(pattern.GetText(), why) ? why : "";
}

std::string BadUnit(const Pattern& pattern) {
    std::string why;
    return pattern.IsLiteral() && !CheckUnit(pattern.GetText(), why)
               ? why + " (it needs its suffix, as in x.service)"
               : "";
}

std::string BadModule(const Pattern& pattern) {
    return pattern.GetText().find('-') == std::string::npos
               ? ""
               : "a module's name has '_' where its file has '-'";
}

std::string BadMountOption(const Pattern& pattern) {
    std::string why;
    const std::string& text = pattern.GetText();
    return pattern.IsLiteral() && !CheckOption(text, why) ? why : "";
}

std::string BadShareOption(const Pattern& pattern) {
    const std::string& text = pattern.GetText();
    const std::string key = OptionKey(text);
    if (key == "password") {
        return text == "password" ? "" : "a password is only ever allowed as 'password'";
    }
    if (key == "pass" || key == "cred" || key == "username" || key == "dom" || key == "workgroup" ||
        key == "addr") {
        return "the option is known here as password, credentials, user, domain or ip";
    }
    return key == "user" ? "" : BadMountOption(pattern);
}

std::string BadFlag(const Pattern& pattern) {
    return StartsWith(pattern.GetText(), "-") ? "a flag is written without its '-'" : "";
}

void Look(const Rule& rule, const char* name, const Patterns& patterns,
          std::string (*bad)(const Pattern&), std::vector<std::string>& findings) {
    for (const Pattern& pattern : patterns.list) {
        if (pattern.GetKind() == Pattern::kRegex || !pattern.GetError().empty()) {
            continue;
        }
        const std::string why = bad(pattern);
        if (!why.empty()) {
            findings.push_back(rule.where + ": rule " + Quote(rule.name) + ": the " + name + " " +
                               Quote(pattern.GetText()) + " can never match: " + why);
        }
    }
}

void LookAtPatterns(const Rule& rule, std::vector<std::string>& findings) {
    const bool share = rule.operation == "sr_mount_cifs";
    Look(rule, "exe", rule.exe, BadPath, findings);
    Look(rule, "source", rule.source, share ? BadShare : BadSource, findings);
    Look(rule, "target", rule.target, BadPath, findings);
    Look(rule, "type", rule.type, BadType, findings);
    Look(rule, "path", rule.path, BadPath, findings);
    Look(rule, "module", rule.module, BadModule, findings);
    Look(rule, "unit", rule.units, BadUnit, findings);
    if (rule.operation == "sr_mount" || share) {
        Look(rule, "option", rule.options, share ? BadShareOption : BadMountOption, findings);
    } else {
        Look(rule, "option", rule.options, BadFlag, findings);
    }
}

}  // namespace

std::vector<std::string> CheckRules(const RuleSet& set) {
    std::vector<std::string> findings;
    for (std::size_t i = 0; i < set.rules.size(); ++i) {
        const Rule& rule = set.rules[i];
        const std::string start = rule.where + ": rule " + Quote(rule.name) + ": ";
        if (!rule.broken.empty()) {
            findings.push_back(rule.broken);
        }
        if (!rule.users.any && rule.users.uids.empty() && rule.users.gids.empty()) {
            findings.push_back(start + "can never match: there is none of its users");
        }
        LookAtPatterns(rule, findings);
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (Covers(set.rules[earlier], rule)) {
                findings.push_back(start + "can never match: " + set.rules[earlier].where +
                                   " matches everything that it matches");
                break;
            }
        }
    }
    return findings;
}

}  // namespace agent
