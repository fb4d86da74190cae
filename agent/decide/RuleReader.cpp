// SPDX-License-Identifier: Apache-2.0
// How a text becomes rules:
//
//     the text -> TOML              a text that is not TOML is one error, and no rule is read
//     each [[rule]]                 anything else at the top is an error
//     its keys                      each must be in the table (Keys.h)
//     each operation it is for      one Rule of its own, with "FILE:LINE" of the table
//     the keys that it has          in the table's order: each must be one of the operation's, and
//                                   in a rule that denies, one that means something there
//     the keys that it lacks        in a rule that permits, nothing is open by omission
//
// The type of the member that a key fills says how its value is read: one Read() below for each
// type. A value that is wrong is an error with its file and line, and the reading goes on, so that
// one run shows all errors; a set with any error is not used. Two things are no errors: a user or a
// group that does not exist, which is a warning and matches nobody, and a pattern that does not
// compile, since other rules must go on to work: the rule keeps it as `broken`, and whenever it
// would decide, the answer is an error of its own.
//
// A new key is a row in Keys.cpp; only one whose value has a new form needs a Read() here.
#include "RuleReader.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstdint>

#include "Keys.h"
#include "base/Text.h"
#include "parse/Mounts.h"

namespace agent {

namespace {

// The callers give up after 25 s, and the answer may come 3 s after the deadline.
const std::int64_t kLongestDeadline = 21000;

bool NamesGroup(Pattern::Kind kind, const std::string& text) {
    return kind == Pattern::kGlob && text.find("%gid") != std::string::npos;
}

class RuleReader {
public:
    RuleReader(const std::string& file_, const Names& accounts_, LoadResult& result_)
        : file(file_), accounts(accounts_), result(result_) {}

    // One rule for each operation that the table names.
    void Read(const toml::table& table, std::vector<Rule>& rules);

private:
    std::string At(const toml::node& node) const {
        return file + ":" + std::to_string(node.source().begin.line);
    }
    void Error(const toml::node& node, const std::string& why) {
        result.errors.push_back(At(node) + ": " + why);
    }
    void Warn(const toml::node& node, const std::string& why) {
        result.warnings.push_back(At(node) + ": " + why);
    }

    // The node itself, or the elements when it is an array; an empty array is an error.
    std::vector<const toml::node*> Elements(const toml::node& node);
    // Nothing, after an error, when the value is no such thing.
    std::optional<std::string> ReadText(const toml::node& node);
    std::optional<bool> ReadBool(const toml::node& node);

    void CheckKeys(const toml::table& table);
    void ReadFor(const std::string& name, const toml::node& named, const toml::table& table,
                 std::vector<Rule>& rules);
    void ReadKey(const Key& key, const toml::node& node, Rule& rule);
    void CheckComplete(const toml::table& table, const Rule& rule);

    // One for each type of member.
    void Read(const toml::node& node, Rule& rule, ReadBefore member);
    void Read(const toml::node& node, Rule& rule, std::string Rule::*member);
    void Read(const toml::node& node, Rule& rule, bool Rule::*member);
    void Read(const toml::node& node, Rule& rule, Users Rule::*member);
    void Read(const toml::node& node, Rule& rule, Patterns Rule::*member);
    void Read(const toml::node& node, Rule& rule, const ListedWords& member);
    void Read(const toml::node& node, Rule& rule, const BoundedNumbers& member);
    void Read(const toml::node& node, Rule& rule, std::vector<int> Rule::*member);
    void Read(const toml::node& node, Rule& rule, const UserName& member);
    void Read(const toml::node& node, Rule& rule, const GroupName& member);
    void Read(const toml::node& node, Rule& rule, const OptionLists& member);
    void Read(const toml::node& node, Rule& rule, std::vector<std::string> Rule::*member);
    void Read(const toml::node& node, Rule& rule, std::chrono::milliseconds Rule::*member);

    void ReadPattern(const toml::node& node, Patterns& patterns, Rule& rule);
    void ReadRange(const toml::node& node, unsigned most, Numbers& numbers);
    void ReadUser(const toml::node& node, Users& users);
    void ReadAlways(const toml::node& node, Rule& rule, std::vector<std::string>& always);
    void CheckAlways(const toml::node& node, const std::string& option, const Rule& rule,
                     const std::vector<std::string>& always);

    // What is said of a name that no account has: a rule about nobody, or a command that cannot be.
    typedef void (RuleReader::*Say)(const toml::node& node, const std::string& why);
    // Nothing when there is none, or when nobody can tell, which is an error.
    std::optional<uid_t> FindUser(const toml::node& node, const std::string& name, Say whenNone);
    std::optional<gid_t> FindGroup(const toml::node& node, const std::string& name, Say whenNone);

    const std::string& file;
    const Names& accounts;
    LoadResult& result;
};

// ---- single values

std::vector<const toml::node*> RuleReader::Elements(const toml::node& node) {
    std::vector<const toml::node*> elements;
    if (const toml::array* array = node.as_array()) {
        for (const toml::node& element : *array) {
            elements.push_back(&element);
        }
        if (elements.empty()) {
            Error(node, "an empty list can match nothing");
        }
    } else {
        elements.push_back(&node);
    }
    return elements;
}

std::optional<std::string> RuleReader::ReadText(const toml::node& node) {
    const toml::value<std::string>* value = node.as_string();
    if (value == nullptr || value->get().empty() || HasControl(value->get())) {
        Error(node, "a text is expected here (not empty, without control characters)");
        return std::nullopt;
    }
    return value->get();
}

std::optional<bool> RuleReader::ReadBool(const toml::node& node) {
    const toml::value<bool>* found = node.as_boolean();
    if (found == nullptr) {
        Error(node, "true or false is expected here");
        return std::nullopt;
    }
    return found->get();
}

void RuleReader::Read(const toml::node& /*node*/, Rule& /*rule*/, ReadBefore /*member*/) {}

void RuleReader::Read(const toml::node& node, Rule& rule, std::string Rule::*member) {
    rule.*member = ReadText(node).value_or("");
}

void RuleReader::Read(const toml::node& node, Rule& rule, bool Rule::*member) {
    rule.*member = ReadBool(node).value_or(false);
}

// ---- patterns

void RuleReader::Read(const toml::node& node, Rule& rule, Patterns Rule::*member) {
    (rule.*member).given = true;
    for (const toml::node* element : Elements(node)) {
        ReadPattern(*element, rule.*member, rule);
    }
}

void RuleReader::ReadPattern(const toml::node& node, Patterns& patterns, Rule& rule) {
    Pattern::Kind kind = Pattern::kGlob;
    const toml::node* from = &node;
    if (const toml::table* table = node.as_table()) {
        const toml::node* regex = table->get("regex");
        const toml::node* exact = table->get("exact");
        if (table->size() != 1 || (regex == nullptr && exact == nullptr)) {
            Error(node, "a pattern is a text, {regex = \"...\"} or {exact = \"...\"}");
            return;
        }
        kind = regex != nullptr ? Pattern::kRegex : Pattern::kExact;
        from = regex != nullptr ? regex : exact;
    }
    const std::optional<std::string> text = ReadText(*from);
    if (!text) {
        return;
    }
    const bool variable =
        text->find("%uid") != std::string::npos || text->find("%gid") != std::string::npos;
    if (variable && kind != Pattern::kGlob) {
        Error(*from, "%uid and %gid are for plain patterns only");
        return;
    }
    rule.usesGroup = rule.usesGroup || NamesGroup(kind, *text);
    patterns.list.emplace_back(kind, *text);
    const std::string& why = patterns.list.back().GetError();
    if (!why.empty()) {
        rule.broken = At(*from) + ": " + why;
        Warn(*from, why);
    }
}

void RuleReader::Read(const toml::node& node, Rule& rule, const ListedWords& member) {
    for (const toml::node* element : Elements(node)) {
        const toml::value<std::string>* text = element->as_string();
        const Check good = member.check(text == nullptr ? "" : text->get());
        if (!good) {
            Error(*element, good.Reason());
            return;
        }
    }
    Read(node, rule, member.patterns);
}

// ---- numbers

void RuleReader::Read(const toml::node& node, Rule& rule, const BoundedNumbers& member) {
    for (const toml::node* element : Elements(node)) {
        ReadRange(*element, member.most, rule.*member.numbers);
    }
}

void RuleReader::ReadRange(const toml::node& node, unsigned most, Numbers& numbers) {
    unsigned long first = most + 1UL;
    unsigned long last = 0;
    if (const toml::value<std::int64_t>* number = node.as_integer()) {
        if (number->get() >= 0 && number->get() <= most) {
            first = last = static_cast<unsigned long>(number->get());
        }
    } else if (const toml::value<std::string>* text = node.as_string()) {
        const std::vector<std::string> ends = Split(text->get(), '-');
        if (text->get() == "*") {
            first = 0;
            last = most;
        } else if (ends.size() == 2 && ends[0].size() < 9 && ends[1].size() < 9) {
            const std::optional<unsigned long> from = ToNumber<unsigned long>(ends[0]);
            const std::optional<unsigned long> to = ToNumber<unsigned long>(ends[1]);
            first = from && to ? *from : first;
            last = from && to ? *to : last;
        }
    }
    if (first > last || last > most) {
        Error(node, "a number up to " + std::to_string(most) +
                        ", a range \"FIRST-LAST\" or \"*\" is expected here");
        return;
    }
    numbers.ranges.emplace_back(static_cast<unsigned>(first), static_cast<unsigned>(last));
}

void RuleReader::Read(const toml::node& node, Rule& rule, std::vector<int> Rule::*member) {
    for (const toml::node* element : Elements(node)) {
        const toml::value<std::string>* text = element->as_string();
        const std::optional<unsigned> mode =
            text == nullptr ? std::nullopt : ToNumber<unsigned>(text->get(), 8);
        if (!mode || text->get().size() > 4 || *mode > 0777) {
            Error(*element, "a mode is an octal text up to \"0777\"");
            return;
        }
        (rule.*member).push_back(static_cast<int>(*mode));
    }
}

void RuleReader::Read(const toml::node& node, Rule& rule, std::chrono::milliseconds Rule::*member) {
    std::int64_t milliseconds = 0;
    if (const toml::value<std::int64_t>* seconds = node.as_integer()) {
        milliseconds = std::clamp<std::int64_t>(seconds->get(), 0, 1000) * 1000;
    } else if (const toml::value<std::string>* text = node.as_string()) {
        const std::size_t unit = text->get().find_first_not_of(kDigits);
        const std::string number = text->get().substr(0, unit);
        const std::string name = unit == std::string::npos ? "" : text->get().substr(unit);
        if (number.size() < 6 && (name == "s" || name == "ms")) {
            milliseconds = ToNumber<std::int64_t>(number).value_or(0) * (name == "s" ? 1000 : 1);
        }
    }
    if (milliseconds <= 0 || milliseconds > kLongestDeadline) {
        Error(node, "a deadline is a time such as \"15s\" or \"500ms\", at most 21 s");
        return;
    }
    rule.*member = std::chrono::milliseconds(milliseconds);
}

// ---- who

void RuleReader::Read(const toml::node& node, Rule& rule, Users Rule::*member) {
    for (const toml::node* element : Elements(node)) {
        ReadUser(*element, rule.*member);
    }
}

void RuleReader::ReadUser(const toml::node& node, Users& users) {
    if (const toml::value<std::int64_t>* number = node.as_integer()) {
        // The last number is "no user" to the system.
        if (number->get() < 0 || number->get() >= std::int64_t{0xffffffff}) {
            Error(node, "this is no user's number");
        } else {
            users.uids.insert(static_cast<uid_t>(number->get()));
        }
        return;
    }
    if (!node.is_string()) {
        Error(node, "a user is a number, a name, \"@GROUP\" or \"*\"");
        return;
    }
    const std::optional<std::string> name = ReadText(node);
    if (!name) {
        return;
    }
    if (*name == "*") {
        users.any = true;
    } else if (name->front() == '@') {
        if (const auto gid = FindGroup(node, name->substr(1), &RuleReader::Warn)) {
            users.gids.insert(*gid);
        }
    } else if (IsMadeOf(*name, kDigits)) {
        Error(node, "a user's number is written without quotes");
    } else if (const auto uid = FindUser(node, *name, &RuleReader::Warn)) {
        users.uids.insert(*uid);
    }
}

std::optional<uid_t> RuleReader::FindUser(const toml::node& node, const std::string& name,
                                          Say whenNone) {
    try {
        const std::optional<uid_t> uid = accounts.FindUser(name);
        if (!uid) {
            (this->*whenNone)(node, "there is no user " + Quote(name));
        }
        return uid;
    } catch (const LookUpFailed& failure) {
        Error(node, "user " + Quote(name) + " cannot be looked up: " + failure.what());
        return std::nullopt;
    }
}

std::optional<gid_t> RuleReader::FindGroup(const toml::node& node, const std::string& name,
                                           Say whenNone) {
    try {
        const std::optional<gid_t> gid = accounts.FindGroup(name);
        if (!gid) {
            (this->*whenNone)(node, "there is no group " + Quote(name));
        }
        return gid;
    } catch (const LookUpFailed& failure) {
        Error(node, "group " + Quote(name) + " cannot be looked up: " + failure.what());
        return std::nullopt;
    }
}

void RuleReader::Read(const toml::node& node, Rule& rule, const UserName& member) {
    if (const std::optional<std::string> name = ReadText(node)) {
        rule.*member.uid = FindUser(node, *name, &RuleReader::Error).value_or(rule.*member.uid);
    }
}

void RuleReader::Read(const toml::node& node, Rule& rule, const GroupName& member) {
    if (const std::optional<std::string> name = ReadText(node)) {
        rule.*member.gid = FindGroup(node, *name, &RuleReader::Error).value_or(rule.*member.gid);
    }
}

// ---- options and helpers

void RuleReader::Read(const toml::node& node, Rule& rule, const OptionLists& member) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        Error(node, "options are written as options.allow and options.always");
        return;
    }
    for (const auto& [key, value] : *table) {
        if (key.str() == "allow") {
            Read(value, rule, member.allow);
        } else if (key.str() == "always") {
            ReadAlways(value, rule, rule.*member.always);
        } else {
            Error(value, "unknown key " + Quote("options." + std::string(key.str())));
        }
    }
}

void RuleReader::ReadAlways(const toml::node& node, Rule& rule, std::vector<std::string>& always) {
    for (const toml::node* element : Elements(node)) {
        if (const std::optional<std::string> option = ReadText(*element)) {
            CheckAlways(*element, *option, rule, always);
            rule.usesGroup = rule.usesGroup || NamesGroup(Pattern::kGlob, *option);
            always.push_back(*option);
        }
    }
}

// What is added is checked as strictly as what is asked for; it cannot say yes and no at once.
void RuleReader::CheckAlways(const toml::node& node, const std::string& option, const Rule& rule,
                             const std::vector<std::string>& always) {
    if (const Check good = CheckAddition(rule.operation, option); !good) {
        Error(node, good.Reason());
    } else if (option == "bind" || option == "loop") {
        Error(node, "the option " + Quote(option) + " can only be allowed");
    } else if ((option == "suid" && !rule.suid) || (option == "dev" && !rule.dev)) {
        Error(node, "the option " + Quote(option) + " needs '" + option + " = true' in the rule");
    }
    for (const std::string& other : always) {
        if (other == "no" + option || option == "no" + other || (option == "ro" && other == "rw") ||
            (option == "rw" && other == "ro")) {
            Error(node, "the options " + Quote(option) + " and " + Quote(other) +
                            " contradict each other");
        }
    }
}

void RuleReader::Read(const toml::node& node, Rule& rule, std::vector<std::string> Rule::*member) {
    for (const toml::node* element : Elements(node)) {
        const std::optional<std::string> type = ReadText(*element);
        if (!type) {
            continue;
        }
        if (!CheckType(*type) || *type == "none" || *type == "auto") {
            Error(*element, "a type is expected here that can have a helper");
        }
        (rule.*member).push_back(*type);
    }
}

// ---- the whole rule

void RuleReader::ReadKey(const Key& key, const toml::node& node, Rule& rule) {
    if (!key.has.Has(rule.operation)) {
        Error(node, "the key " + Quote(key.name) + " is not for " + NameOf(rule.operation));
    } else if (!rule.permit && !key.inDeny) {
        Error(node, "the key " + Quote(key.name) + " has no meaning in a rule that denies");
    } else {
        std::visit([&](const auto& member) { Read(node, rule, member); }, key.member);
    }
}

void RuleReader::CheckKeys(const toml::table& table) {
    for (const auto& [name, node] : table) {
        const std::string text(name.str());
        const bool known = std::any_of(Keys().begin(), Keys().end(),
                                       [&](const Key& key) { return text == key.name; });
        if (!known) {
            Error(node, "unknown key " + Quote(text));
        }
    }
}

void RuleReader::CheckComplete(const toml::table& table, const Rule& rule) {
    for (const Key& key : Keys()) {
        const bool needed = rule.permit ? key.needed.Has(rule.operation) : key.neededToDeny;
        if (needed && table.get(key.name) == nullptr) {
            Error(table, "the key " + Quote(key.name) + " is missing");
        }
    }
    // What has numbers, by its kind, must name them.
    const Variables none;
    const bool numbered = rule.kind.Match("b", none) || rule.kind.Match("c", none);
    if (rule.permit && numbered && (rule.majors.ranges.empty() || rule.minors.ranges.empty())) {
        Error(table, "the keys 'major' and 'minor' are missing");
    }
}

void RuleReader::ReadFor(const std::string& name, const toml::node& named, const toml::table& table,
                         std::vector<Rule>& rules) {
    const std::optional<Operation> operation = FindOperation(name);
    const toml::node* permit = table.get("permit");
    Rule rule;
    if (!operation) {
        Error(named, "there is no agent " + Quote(name));
        return;
    }
    rule.where = At(table);
    rule.operation = *operation;
    rule.users.any = table.get("user") == nullptr;
    if (permit != nullptr) {
        const std::optional<bool> value = ReadBool(*permit);
        if (!value) {
            return;
        }
        rule.permit = *value;
    }
    for (const Key& key : Keys()) {
        if (const toml::node* node = table.get(key.name)) {
            ReadKey(key, *node, rule);
        }
    }
    CheckComplete(table, rule);
    rules.push_back(rule);
}

void RuleReader::Read(const toml::table& table, std::vector<Rule>& rules) {
    const toml::node* agents = table.get("agent");
    CheckKeys(table);
    if (agents == nullptr) {
        Error(table, "the key 'agent' is missing");
        return;
    }
    for (const toml::node* element : Elements(*agents)) {
        if (const std::optional<std::string> name = ReadText(*element)) {
            ReadFor(*name, *element, table, rules);
        }
    }
}

}  // namespace

void ReadRules(const std::string& text, const std::string& file, const Names& accounts,
               std::vector<Rule>& rules, LoadResult& result) {
    toml::table root;
    try {
        root = toml::parse(text, file);
    } catch (const toml::parse_error& failure) {
        result.errors.push_back(file + ":" + std::to_string(failure.source().begin.line) + ": " +
                                std::string(failure.description()));
        return;
    }
    RuleReader reader(file, accounts, result);
    for (const auto& [key, node] : root) {
        const std::string at = file + ":" + std::to_string(node.source().begin.line) + ": ";
        const toml::array* list = node.as_array();
        if (key.str() != "rule" || list == nullptr) {
            result.errors.push_back(at + "only [[rule]] tables are known here, not " +
                                    Quote(std::string(key.str())));
            continue;
        }
        for (const toml::node& element : *list) {
            if (const toml::table* table = element.as_table()) {
                reader.Read(*table, rules);
            } else {
                result.errors.push_back(at + "a rule is a table");
            }
        }
    }
}

void Finish(std::vector<Rule>&& rules, LoadResult& result) {
    if (result.errors.empty()) {
        auto set = std::make_shared<RuleSet>();
        set->rules = std::move(rules);
        result.rules = set;
    }
}

LoadResult ParseRules(const std::string& text, const std::string& file, const Names& accounts) {
    LoadResult result;
    std::vector<Rule> rules;
    ReadRules(text, file, accounts, rules, result);
    Finish(std::move(rules), result);
    return result;
}

}  // namespace agent
