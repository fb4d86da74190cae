// SPDX-License-Identifier: Apache-2.0
// The rules: read from TOML files, checked, and then never changed.
//
// A load gives either a complete new set or errors; a set is immutable and shared, so a request
// that is being decided keeps the set it began with. Names of users and groups are looked up once,
// while loading; one that cannot be looked up is an error. Loading is for one thread at a time; a
// loaded set may be read by any.
#ifndef SENTREL_AGENT_RULE_H
#define SENTREL_AGENT_RULE_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Pattern.h"
#include "base/Caller.h"
#include "base/Operation.h"

namespace agent {

// The patterns of one field. Not given: the field is not looked at.
struct Patterns {
    bool given = false;
    std::vector<Pattern> list;

    bool Match(const std::string& field, const Variables& variables) const;
};

struct Numbers {
    std::vector<std::pair<unsigned, unsigned>> ranges;  // first to last, both in

    bool Has(unsigned number) const;
};

struct Users {
    bool any = false;
    std::set<uid_t> uids;
    std::set<gid_t> gids;
};

struct Rule {
    std::string name;
    std::string where;  // "FILE:LINE"
    Operation operation = Operation::kMount;
    bool permit = true;
    // What is wrong with one of its patterns. A rule with such a pattern that would decide does
    // not: the answer is then an error of its own.
    std::string broken;

    Users users;
    Patterns exe;
    Patterns source, target, type;
    Patterns path, kind, module, verb;
    Patterns units, parameters;
    Numbers majors, minors;
    Patterns options;                  // what a caller may ask for
    std::vector<std::string> always;   // what is added; %uid and %gid not yet put in
    std::vector<std::string> helpers;  // types whose mount helper may run
    bool suid = false;                 // consent to leave out nosuid
    bool dev = false;                  // consent to leave out nodev
    bool usesGroup = false;            // %gid stands somewhere in it
    bool openParents = false;          // directories above a path may belong to others than root
    std::vector<int> modes;            // of a node; the first is for callers who name none
    uid_t owner = static_cast<uid_t>(-1);
    gid_t group = static_cast<gid_t>(-1);
    std::chrono::milliseconds deadline{20000};
};

struct RuleSet {
    std::vector<Rule> rules;  // in the order in which they are asked
};

struct LoadResult {
    std::shared_ptr<const RuleSet> rules;  // null when there are errors
    std::vector<std::string> errors;       // "FILE:LINE: sentence", or "FILE: sentence"
    std::vector<std::string> warnings;     // the same; the set is usable all the same
};

// What is to be known of an account before the rules decide about the operation.
AccountQuestions QuestionsOf(const RuleSet& set, Operation operation);

}  // namespace agent

#endif
