// SPDX-License-Identifier: Apache-2.0
// One walk over the rules: the first that matches in every key of the table (Keys.h) is applied,
// which gives a Permit, a refusal, or the error that the rule cannot be read. Of those that do not
// match, the one that came nearest is named to the audit, so that an administrator sees what to
// change.
#include "Decide.h"

#include "Keys.h"
#include "base/Text.h"

namespace agent {

namespace {

// How far one rule goes along with a request.
struct Match {
    std::string miss;  // the first that does not fit; empty: the rule matches
    int score = 0;     // how much does
};

Match Compare(const Rule& rule, const Asked& asked) {
    Match match;
    for (const Key& key : Keys()) {
        if (key.miss == nullptr) {
            continue;
        }
        match.miss = key.miss(key, rule, asked);
        if (!match.miss.empty()) {
            break;
        }
        match.score += key.weighs ? 1 : 0;
    }
    return match;
}

Decision Refused(const std::string& reason, const std::string& detail) {
    Decision decision;
    decision.reason = reason;
    decision.detail = detail;
    return decision;
}

}  // namespace

Decision Decider::Apply(const Rule& rule, const Request& request,
                        const Variables& variables) const {
    Decision decision;
    decision.rule = rule.where;
    const std::string start = "rule " + Quote(rule.name) + " (" + rule.where + ") ";
    if (!rule.broken.empty()) {
        decision.status = SR_INVALID_REGEX;
        decision.reason = "the rule that would decide has a pattern that does not compile";
        decision.detail = start + "would decide but cannot: " + rule.broken;
        return decision;
    }
    if (!rule.permit) {
        decision.reason = "a rule forbids this";
        decision.detail = start + "forbids it";
        return decision;
    }
    if (tools.PathFor(request.operation).empty()) {
        decision.status = SR_FEATURE_ISNT_IMPLEMENTED;
        decision.reason = "the tool for this is not on this system";
        decision.detail = start + "allows it, but the tool is not on this system";
        return decision;
    }
    Result<Plan> plan = planner(rule, request, tools, variables);
    if (!plan) {
        decision.reason = "no rule allows this";
        decision.detail = start + "cannot be applied: " + plan.Reason();
        return decision;
    }
    decision.status = SR_OK;
    decision.reason = "a rule allows this";
    decision.detail = start + "allows it";
    decision.permit.emplace(Permit(std::move(*plan)));
    return decision;
}

Decision Decider::Decide(const RuleSet& set, const Caller& caller, const Request& request) const {
    if (caller.uid == static_cast<uid_t>(-1)) {
        return Refused("the caller is not known", "the bus names no user");
    }
    Variables variables;
    variables.uid = std::to_string(caller.uid);
    if (caller.account.primary) {
        variables.gid = std::to_string(*caller.account.primary);
    }
    std::string nearest;
    int best = 0;
    for (const Rule& rule : set.rules) {
        if (rule.operation != request.operation) {
            continue;
        }
        const Match match = Compare(rule, {caller, request, variables});
        if (match.miss.empty()) {
            Decision decision = Apply(rule, request, variables);
            if (IsNamed(rule, caller) == Named::kPerhaps) {
                decision.detail += "; whether the caller's account is in its group is not known";
            }
            return decision;
        }
        if (rule.permit && match.score > best) {
            best = match.score;
            nearest = "; the nearest is " + Quote(rule.name) + " (" + rule.where +
                      "), which does not allow " + match.miss;
        }
    }
    return Refused("no rule allows this", "no rule matches" + nearest);
}

}  // namespace agent
