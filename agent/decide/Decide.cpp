// SPDX-License-Identifier: Apache-2.0
// See Decide.h.
#include "Decide.h"

#include <algorithm>

#include "Plans.h"
#include "base/Text.h"

namespace agent {

namespace {

// One rule against one request. A pattern that does not compile counts as matching: whether the
// rule would decide must not depend on the pattern that nobody can read.
class Matching {
public:
    Matching(const Rule& theRule, const Caller& theCaller, const Request& theRequest,
             const Variables& theVariables)
        : rule(theRule), caller(theCaller), request(theRequest), variables(theVariables) {}

    bool Run() { return MatchCaller() && MatchFields() && MatchNode() && MatchLists(); }

    // The first field that did not match.
    std::string miss;
    // How many fields did.
    int score = 0;
    // It matches because nobody could tell whether the caller is in a group.
    bool unsure = false;

private:
    bool Miss(const std::string& field) {
        miss = field;
        return false;
    }

    bool Fits(const Patterns& patterns, const std::string& field) const {
        return patterns.Match(field, variables) ||
               std::any_of(patterns.list.begin(), patterns.list.end(),
                           [](const Pattern& pattern) { return !pattern.GetError().empty(); });
    }

    bool MatchCaller() {
        const Users& users = rule.users;
        const bool named = users.any || users.uids.count(caller.uid) != 0 ||
                           std::any_of(caller.groups.begin(), caller.groups.end(),
                                       [&](gid_t group) { return users.gids.count(group) != 0; });
        if (!named && !IsDeniedAsAccount()) {
            return Miss("the caller");
        }
        ++score;
        // An executable that cannot be known is no reason to permit, and none to let pass.
        const bool unknown = caller.executable.empty() && !rule.permit;
        if (rule.exe.given && !unknown && !Fits(rule.exe, caller.executable)) {
            return Miss("the executable");
        }
        ++score;
        return true;
    }

    // A caller can lay a group down, but stays in the account database what he is.
    bool IsDeniedAsAccount() {
        if (rule.permit) {
            return false;
        }
        const Account& account = caller.account;
        bool denied = false;
        for (const gid_t group : rule.users.gids) {
            denied = denied || account.groups.count(group) != 0;
            unsure = unsure || account.asked.count(group) == 0;
        }
        unsure = unsure && !denied;
        return denied || unsure;
    }

    bool MatchFields() {
        struct Field {
            const char* name;
            Patterns Rule::*patterns;
            std::string Request::*text;
        };
        static const Field kFields[] = {
            {"the source", &Rule::source, &Request::source},
            {"the mount point", &Rule::target, &Request::target},
            {"the type", &Rule::type, &Request::type},
            {"the path", &Rule::path, &Request::path},
            {"the kind", &Rule::kind, &Request::kind},
            {"the module", &Rule::module, &Request::module},
            {"the verb", &Rule::verb, &Request::verb},
        };
        for (const Field& field : kFields) {
            const Patterns& patterns = rule.*field.patterns;
            if (patterns.given && !Fits(patterns, request.*field.text) && !MayBeAnyType(patterns)) {
                return Miss(field.name);
            }
            ++score;
        }
        return true;
    }

    // Where the kernel looks for the type, it may find the one that the rule denies.
    bool MayBeAnyType(const Patterns& patterns) const {
        return &patterns == &rule.type && !rule.permit && request.type == "auto";
    }

    bool MatchNode() {
        if (request.kind == "b" || request.kind == "c") {
            if (!HasNumber(rule.majors, request.majorNumber)) {
                return Miss("the major number");
            }
            if (!HasNumber(rule.minors, request.minorNumber)) {
                return Miss("the minor number");
            }
        }
        if (rule.permit && request.mode != -1) {
            const bool listed = std::count(rule.modes.begin(), rule.modes.end(), request.mode) != 0;
            if (!listed && !(rule.modes.empty() && request.mode == 0600)) {
                return Miss("the mode");
            }
        }
        ++score;
        return true;
    }

    // No numbers: none in a rule that permits, any in one that denies.
    bool HasNumber(const Numbers& numbers, unsigned number) const {
        return numbers.ranges.empty() ? !rule.permit : numbers.Has(number);
    }

    bool MatchLists() {
        if (rule.units.given && !MatchUnits()) {
            return Miss("a unit");
        }
        if (!rule.permit) {
            return true;
        }
        for (const std::string& parameter : request.parameters) {
            if (!Fits(rule.parameters, parameter)) {
                return Miss("the parameter " + Quote(parameter));
            }
        }
        return MatchOptions();
    }

    bool MatchUnits() const {
        const auto fits = [&](const std::string& unit) { return Fits(rule.units, unit); };
        return rule.permit ? std::all_of(request.units.begin(), request.units.end(), fits)
                           : std::any_of(request.units.begin(), request.units.end(), fits);
    }

    bool MatchOptions() {
        for (const std::string& option : request.options) {
            if (!AllowsOption(option)) {
                return Miss("the option " + Quote(option));
            }
        }
        // A password is allowed as a whole, by the bare word.
        if (!request.secret.empty() && !Fits(rule.options, "password")) {
            return Miss("the option 'password'");
        }
        if (!request.secretFile.empty() &&
            !Fits(rule.options, "credentials=" + request.secretFile)) {
            return Miss("the option 'credentials'");
        }
        return true;
    }

    // These change what a mount is: a wildcard is not enough to mean them, and the last two need
    // the rule's consent besides.
    bool AllowsOption(const std::string& option) const {
        const bool special =
            option == "bind" || option == "loop" || option == "suid" || option == "dev";
        if (!special) {
            return Fits(rule.options, option);
        }
        const bool consent = (option != "suid" || rule.suid) && (option != "dev" || rule.dev);
        return consent && std::any_of(rule.options.list.begin(), rule.options.list.end(),
                                      [&](const Pattern& pattern) {
                                          return pattern.IsLiteral() && pattern.GetText() == option;
                                      });
    }

    const Rule& rule;
    const Caller& caller;
    const Request& request;
    const Variables& variables;
};

Decision Refusal(int status, const std::string& reason, const std::string& detail) {
    Decision decision;
    decision.status = status;
    decision.reason = reason;
    decision.detail = detail;
    return decision;
}

}  // namespace

Decision Decider::Apply(const Rule& rule, const Request& request,
                        const Variables& variables) const {
    Decision decision;
    Plan plan;
    std::string error;
    decision.rule = rule.where;
    const std::string start = "rule " + Quote(rule.name) + " (" + rule.where + ") ";
    if (!rule.broken.empty()) {
        decision.status = kInvalidRegex;
        decision.reason = "the rule that would decide has a pattern that does not compile";
        decision.detail = start + "would decide but cannot: " + rule.broken;
    } else if (!rule.permit) {
        decision.reason = "a rule forbids this";
        decision.detail = start + "forbids it";
    } else if (ToolFor(tools, request.operation).empty()) {
        decision.status = kNotImplemented;
        decision.reason = "the tool for this is not on this system";
        decision.detail = start + "allows it, but the tool is not on this system";
    } else if (!BuildPlan(rule, request, tools, variables, plan, error)) {
        decision.reason = "no rule allows this";
        decision.detail = start + "cannot be applied: " + error;
    } else {
        decision.status = kOk;
        decision.reason = "a rule allows this";
        decision.detail = start + "allows it";
        decision.permit.emplace(Permit(std::move(plan), rule.where));
    }
    return decision;
}

Decision Decider::Decide(const RuleSet& set, const Caller& caller, const Request& request) const {
    if (caller.uid == static_cast<uid_t>(-1)) {
        return Refusal(kRuleNotFound, "the caller is not known", "the bus names no user");
    }
    Variables variables;
    variables.uid = std::to_string(caller.uid);
    if (caller.account.primary) {
        variables.gid = std::to_string(*caller.account.primary);
    }
    std::string nearest;
    int best = 0;
    for (const Rule& rule : set.rules) {
        Matching matching(rule, caller, request, variables);
        if (rule.operation != request.operation) {
            continue;
        }
        if (matching.Run()) {
            Decision decision = Apply(rule, request, variables);
            decision.detail += matching.unsure
                                   ? "; whether the caller's account is in its group is not known"
                                   : "";
            return decision;
        }
        if (rule.permit && matching.score > best) {
            best = matching.score;
            nearest = "; the nearest is " + Quote(rule.name) + " (" + rule.where +
                      "), which does not allow " + matching.miss;
        }
    }
    return Refusal(kRuleNotFound, "no rule allows this", "no rule matches" + nearest);
}

}  // namespace agent
