// SPDX-License-Identifier: Apache-2.0
// The matrix of requests that must be refused, against the rules in the process: every case must be
// refused as "not allowed" or "malformed" and leave no permit.
//
// The matrix can fail: the good requests are allowed by the same rules, and under wide rules many
// of the cases that are wrong only by rule are allowed.
#include <gtest/gtest.h>

#include <iostream>
#include <set>

#include "Denials.h"
#include "Oracle.h"
#include "decide/Decide.h"

namespace {

// The answer's status; a permit without status 0 or the reverse is a failure by itself.
int Answer(const agent::RuleSet& set, const DenialCase& one) {
    const agent::Parsed parsed = agent::Parse(one.operation, one.text);
    if (parsed.status != SR_OK) {
        return parsed.status;
    }
    const agent::Decision decision =
        agent::Decider(agent::Tools()).Decide(set, one.caller, parsed.request);
    EXPECT_EQ(decision.permit.has_value(), decision.status == SR_OK) << one.text;
    return decision.status;
}

TEST(DenialMatrix, EveryGoodRequestIsAllowed) {
    const auto set = MakeRules(kNarrowRules);
    for (const DenialCase& good : GoodCases()) {
        EXPECT_EQ(Answer(*set, good), SR_OK) << good.operation;
    }
    for (const GoodRequest& good : GoodRequests()) {
        EXPECT_EQ(Answer(*set, {good.operation, good.text, MakeCaller(1000), false}), SR_OK)
            << good.operation;
    }
}

TEST(DenialMatrix, EveryCaseIsRefused) {
    const auto set = MakeRules(kNarrowRules);
    int byRule = 0;
    int malformed = 0;
    std::set<std::string> distinct;
    for (const DenialCase& one : DenialCases()) {
        const int status = Answer(*set, one);
        EXPECT_TRUE(status == SR_RULE_NO_FOUND || status == SR_FAIL)
            << one.operation << " " << one.text << " by " << one.caller.uid << ": " << status;
        byRule += status == SR_RULE_NO_FOUND ? 1 : 0;
        malformed += status == SR_FAIL ? 1 : 0;
        distinct.insert(one.operation + " " + one.text);
    }
    std::cout << "refused: " << byRule << " by the rules, " << malformed << " malformed, of "
              << DenialCases().size() << " cases (" << distinct.size() << " different texts)\n";
    EXPECT_GE(byRule, 200);
    EXPECT_GE(malformed, 300);
    EXPECT_GE(distinct.size(), 500U);
}

TEST(DenialMatrix, WideRulesLetThroughWhatIsWrongByRuleOnly) {
    const auto set = MakeRules(kWideRules);
    int allowed = 0;
    int smuggled = 0;
    for (const DenialCase& one : DenialCases()) {
        const int status = Answer(*set, one);
        allowed += status == SR_OK ? 1 : 0;
        smuggled += one.smuggled ? 1 : 0;
        EXPECT_FALSE(one.smuggled && status == SR_OK) << one.operation << " " << one.text;
    }
    std::cout << "allowed by wide rules: " << allowed << " of " << DenialCases().size()
              << " cases, of which " << smuggled << " can never be\n";
    EXPECT_GE(allowed, 150);
    EXPECT_GE(smuggled, 2000);
}

}  // namespace
