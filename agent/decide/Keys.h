// SPDX-License-Identifier: Apache-2.0
// The keys that a rule can have: one table, by which rules are read (RuleReader), held against a
// request (Decide) and checked against each other (RuleCheck). Constants and pure functions.
#ifndef SENTREL_AGENT_KEYS_H
#define SENTREL_AGENT_KEYS_H

#include <chrono>
#include <string>
#include <variant>
#include <vector>

#include "Rule.h"
#include "base/Caller.h"
#include "base/Operation.h"
#include "base/Result.h"
#include "parse/Parse.h"

namespace agent {

// What a rule is held against.
struct Asked {
    const Caller& caller;
    const Request& request;
    const Variables& variables;
};

// Members of a Rule that say by themselves too little of how their key is read.
struct ReadBefore {};  // before the others
struct ListedWords {
    Patterns Rule::*patterns;
    Check (*check)(const std::string& word);  // whole words only, each of which must pass
};
struct BoundedNumbers {
    Numbers Rule::*numbers;
    unsigned most;
};
struct UserName {
    uid_t Rule::*uid;
};
struct GroupName {
    gid_t Rule::*gid;
};
struct OptionLists {
    Patterns Rule::*allow;
    std::vector<std::string> Rule::*always;
};
// What a key fills; the type decides how its value is read.
typedef std::variant<ReadBefore, std::string Rule::*, bool Rule::*, Users Rule::*, Patterns Rule::*,
                     ListedWords, BoundedNumbers, std::vector<int> Rule::*, UserName, GroupName,
                     OptionLists, std::vector<std::string> Rule::*,
                     std::chrono::milliseconds Rule::*>
    Member;

struct Key;
typedef std::string (*Miss)(const Key& key, const Rule& rule, const Asked& asked);
typedef bool (*Coverage)(const Rule& outer, const Rule& inner);
typedef std::string (*Flaw)(const Pattern& pattern, Operation operation);

struct Key {
    const char* name = "";
    Operations has = {};        // those whose rules can have it
    Operations needed = {};     // those whose permitting rules must have it
    bool neededToDeny = false;  // a denying rule must have it too
    bool inDeny = false;        // a denying rule can have it
    Member member;

    // What of the request does not fit the rule; empty when all does. Null: the key decides
    // nothing, it shapes the command.
    Miss miss = nullptr;
    const char* what = "";  // for `miss`
    bool weighs = false;    // of the rules that do not match, the nearest fits in most of these

    // Everything that fits `inner` in this key fits `outer` too. Null: as above.
    Coverage covers = nullptr;

    // Why no request can match the pattern; empty when one might. Null: nothing is known.
    Flaw flaw = nullptr;
};

// In the order in which they are read and asked.
const std::vector<Key>& Keys();

// The patterns that a key fills; null when it fills none.
const Patterns* PatternsOf(const Key& key, const Rule& rule);

// Whether a rule means the caller. kPerhaps: it denies a group, and nobody knows whether the
// caller's account is in it.
enum class Named { kNo, kPerhaps, kYes };
Named IsNamed(const Rule& rule, const Caller& caller);

}  // namespace agent

#endif
