// SPDX-License-Identifier: Apache-2.0
// See RuleReader.h. The table of keys is below the readers of single values: for each key the
// operations that have it, those where a permitting rule must say it, and whether a denying rule
// may. In a permitting rule nothing is open by omission.
#include "RuleReader.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "base/Text.h"
#include "parse/Parse.h"

namespace agent {

namespace {

enum Agents : unsigned {
    kMount = 1,
    kUmount = 2,
    kMountShare = 4,
    kUmountShare = 8,
    kMknod = 16,
    kInsmod = 32,
    kRmmod = 64,
    kSystemctl = 128,
    kAll = 255,
    kAnyMount = kMount | kMountShare,
    kAnyUmount = kUmount | kUmountShare
};

unsigned AgentBit(const std::string& operation) {
    static const std::vector<std::pair<const char*, unsigned>> kBits = {
        {"sr_mount", kMount},           {"sr_umount", kUmount},
        {"sr_mount_cifs", kMountShare}, {"sr_umount_cifs", kUmountShare},
        {"sr_mknod", kMknod},           {"sr_insmod", kInsmod},
        {"sr_rmmod", kRmmod},           {"sr_systemctl", kSystemctl}};
    for (const auto& entry : kBits) {
        if (operation == entry.first) {
            return entry.second;
        }
    }
    return 0;
}

bool NamesGroup(Pattern::Kind kind, const std::string& text) {
    return kind == Pattern::kGlob && text.find("%gid") != std::string::npos;
}

class RuleReader {
public:
    RuleReader(const std::string& name, const Names& users, LoadResult& out)
        : file(name), accounts(users), result(out) {}

    // One rule for each agent that the table names.
    void Read(const toml::table& table, std::vector<Rule>& rules);

private:
    struct KeyRow {
        const char* key;
        unsigned agents;
        unsigned required;        // in a rule that permits
        unsigned requiredInDeny;  // in a rule that denies
        bool inDeny;
        void (RuleReader::*read)(const toml::node& node, Rule& rule);
    };
    static const KeyRow kKeys[];

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
    bool ReadText(const toml::node& node, std::string& text);
    bool ReadBool(const toml::node& node, bool& value);

    void ReadFor(const std::string& operation, const toml::node& named, const toml::table& table,
                 std::vector<Rule>& rules);
    void ReadKey(const KeyRow& row, const toml::node& node, unsigned operation, Rule& rule);
    void CheckKeys(const toml::table& table);
    void CheckComplete(const toml::table& table, unsigned operation, const Rule& rule);
    void ReadPatterns(const toml::node& node, Patterns& patterns, Rule& rule);
    void ReadPattern(const toml::node& node, Patterns& patterns, Rule& rule);
    void ReadNumbers(const toml::node& node, unsigned most, Numbers& numbers);
    void ReadRange(const toml::node& node, unsigned most, Numbers& numbers);
    void ReadUserElement(const toml::node& node, Users& users);
    // Whether there is such an account; what cannot be told is an error.
    enum class Account { kFound, kNone, kUnknown };
    Account FindUser(const toml::node& node, const std::string& name, uid_t& uid);
    Account FindGroup(const toml::node& node, const std::string& name, gid_t& gid);
    void ReadUserName(const toml::node& node, const std::string& name, Users& users);
    void ReadAlways(const toml::node& node, Rule& rule);
    void CheckAlways(const toml::node& node, const std::string& option, const Rule& rule);
    bool ReadOneOf(const toml::node& node, std::initializer_list<const char*> allowed);

    void ReadNothing(const toml::node&, Rule&) {}
    void ReadName(const toml::node& node, Rule& rule) { ReadText(node, rule.name); }
    void ReadUsers(const toml::node& node, Rule& rule);
    void ReadExe(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.exe, rule); }
    void ReadSource(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.source, rule); }
    void ReadTarget(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.target, rule); }
    void ReadType(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.type, rule); }
    void ReadPath(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.path, rule); }
    void ReadKind(const toml::node& node, Rule& rule);
    void ReadModule(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.module, rule); }
    void ReadVerb(const toml::node& node, Rule& rule);
    void ReadUnit(const toml::node& node, Rule& rule) { ReadPatterns(node, rule.units, rule); }
    void ReadParameters(const toml::node& node, Rule& rule) {
        ReadPatterns(node, rule.parameters, rule);
    }
    void ReadMajor(const toml::node& node, Rule& rule) { ReadNumbers(node, 4095, rule.majors); }
    void ReadMinor(const toml::node& node, Rule& rule) { ReadNumbers(node, 1048575, rule.minors); }
    void ReadModes(const toml::node& node, Rule& rule);
    void ReadOwner(const toml::node& node, Rule& rule);
    void ReadGroup(const toml::node& node, Rule& rule);
    void ReadOptions(const toml::node& node, Rule& rule);
    void ReadSuid(const toml::node& node, Rule& rule) { ReadBool(node, rule.suid); }
    void ReadDev(const toml::node& node, Rule& rule) { ReadBool(node, rule.dev); }
    void ReadOpenParents(const toml::node& node, Rule& rule) { ReadBool(node, rule.openParents); }
    void ReadHelpers(const toml::node& node, Rule& rule);
    void ReadDeadline(const toml::node& node, Rule& rule);

    const std::string& file;
    const Names& accounts;
    LoadResult& result;
};

const RuleReader::KeyRow RuleReader::kKeys[] = {
    {"agent", kAll, kAll, kAll, true, &RuleReader::ReadNothing},   // read before the others
    {"permit", kAll, kAll, kAll, true, &RuleReader::ReadNothing},  // likewise
    {"name", kAll, kAll, kAll, true, &RuleReader::ReadName},
    {"user", kAll, kAll, 0, true, &RuleReader::ReadUsers},
    {"exe", kAll, 0, 0, true, &RuleReader::ReadExe},
    {"source", kAnyMount, kAnyMount, 0, true, &RuleReader::ReadSource},
    {"target", kAnyMount | kAnyUmount, kAnyMount | kAnyUmount, 0, true, &RuleReader::ReadTarget},
    {"type", kMount, kMount, 0, true, &RuleReader::ReadType},
    {"path", kMknod | kInsmod, kMknod | kInsmod, 0, true, &RuleReader::ReadPath},
    {"kind", kMknod, kMknod, 0, true, &RuleReader::ReadKind},
    {"major", kMknod, 0, 0, true, &RuleReader::ReadMajor},
    {"minor", kMknod, 0, 0, true, &RuleReader::ReadMinor},
    {"mode", kMknod, 0, 0, false, &RuleReader::ReadModes},
    {"owner", kMknod, 0, 0, false, &RuleReader::ReadOwner},
    {"group", kMknod, 0, 0, false, &RuleReader::ReadGroup},
    {"module", kInsmod | kRmmod, kRmmod, 0, true, &RuleReader::ReadModule},
    {"parameters", kInsmod, 0, 0, false, &RuleReader::ReadParameters},
    {"verb", kSystemctl, kSystemctl, 0, true, &RuleReader::ReadVerb},
    {"unit", kSystemctl, kSystemctl, 0, true, &RuleReader::ReadUnit},
    {"suid", kAnyMount, 0, 0, false, &RuleReader::ReadSuid},
    {"dev", kAnyMount, 0, 0, false, &RuleReader::ReadDev},
    {"options", kAnyMount | kAnyUmount | kSystemctl, 0, 0, false, &RuleReader::ReadOptions},
    {"helper", kMount, 0, 0, false, &RuleReader::ReadHelpers},
    {"open_parents", kAnyMount | kAnyUmount | kMknod, 0, 0, false, &RuleReader::ReadOpenParents},
    {"deadline", kAll, 0, 0, false, &RuleReader::ReadDeadline},
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

bool RuleReader::ReadText(const toml::node& node, std::string& text) {
    const toml::value<std::string>* value = node.as_string();
    if (value == nullptr || value->get().empty() || HasControl(value->get())) {
        Error(node, "a text is expected here (not empty, without control characters)");
        return false;
    }
    text = value->get();
    return true;
}

bool RuleReader::ReadBool(const toml::node& node, bool& value) {
    const toml::value<bool>* found = node.as_boolean();
    if (found == nullptr) {
        Error(node, "true or false is expected here");
        return false;
    }
    value = found->get();
    return true;
}

void RuleReader::ReadPatterns(const toml::node& node, Patterns& patterns, Rule& rule) {
    patterns.given = true;
    for (const toml::node* element : Elements(node)) {
        ReadPattern(*element, patterns, rule);
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
    std::string text;
    if (!ReadText(*from, text)) {
        return;
    }
    const bool variable =
        text.find("%uid") != std::string::npos || text.find("%gid") != std::string::npos;
    if (variable && kind != Pattern::kGlob) {
        Error(*from, "%uid and %gid are for plain patterns only");
        return;
    }
    rule.usesGroup = rule.usesGroup || NamesGroup(kind, text);
    patterns.list.emplace_back(kind, text);
    const std::string& why = patterns.list.back().GetError();
    if (!why.empty()) {
        rule.broken = At(*from) + ": " + why;
        Warn(*from, why);
    }
}

bool RuleReader::ReadOneOf(const toml::node& node, std::initializer_list<const char*> allowed) {
    for (const toml::node* element : Elements(node)) {
        const toml::value<std::string>* text = element->as_string();
        if (text == nullptr || std::none_of(allowed.begin(), allowed.end(),
                                            [&](const char* one) { return text->get() == one; })) {
            Error(*element,
                  "this can only be one of " +
                      Join(std::vector<std::string>(allowed.begin(), allowed.end()), ", "));
            return false;
        }
    }
    return true;
}

void RuleReader::ReadKind(const toml::node& node, Rule& rule) {
    if (ReadOneOf(node, {"b", "c", "p"})) {
        ReadPatterns(node, rule.kind, rule);
    }
}

// Whole verbs only: what a wildcard covers changes when a verb is added.
void RuleReader::ReadVerb(const toml::node& node, Rule& rule) {
    for (const toml::node* element : Elements(node)) {
        const toml::value<std::string>* text = element->as_string();
        if (text == nullptr || !IsVerb(text->get())) {
            Error(*element, "this is not an available verb");
            return;
        }
    }
    ReadPatterns(node, rule.verb, rule);
}

void RuleReader::ReadNumbers(const toml::node& node, unsigned most, Numbers& numbers) {
    for (const toml::node* element : Elements(node)) {
        ReadRange(*element, most, numbers);
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
            first = ToNumber<unsigned long>(ends[0]).value_or(first);
            last = ToNumber<unsigned long>(ends[1]).value_or(last);
        }
    }
    if (first > last || last > most) {
        Error(node, "a number up to " + std::to_string(most) +
                        ", a range \"FIRST-LAST\" or \"*\" is expected here");
        return;
    }
    numbers.ranges.emplace_back(static_cast<unsigned>(first), static_cast<unsigned>(last));
}

// ---- who

void RuleReader::ReadUsers(const toml::node& node, Rule& rule) {
    for (const toml::node* element : Elements(node)) {
        ReadUserElement(*element, rule.users);
    }
}

void RuleReader::ReadUserElement(const toml::node& node, Users& users) {
    if (const toml::value<std::int64_t>* number = node.as_integer()) {
        // The last number is "no user" to the system.
        if (number->get() < 0 || number->get() >= std::int64_t{0xffffffff}) {
            Error(node, "this is no user's number");
        } else {
            users.uids.insert(static_cast<uid_t>(number->get()));
        }
        return;
    }
    std::string name;
    if (!node.is_string()) {
        Error(node, "a user is a number, a name, \"@GROUP\" or \"*\"");
    } else if (ReadText(node, name)) {
        ReadUserName(node, name, users);
    }
}

RuleReader::Account RuleReader::FindUser(const toml::node& node, const std::string& name,
                                         uid_t& uid) {
    try {
        return accounts.FindUser(name, uid) ? Account::kFound : Account::kNone;
    } catch (const LookUpFailed& failure) {
        Error(node, "user " + Quote(name) + " cannot be looked up: " + failure.what());
        return Account::kUnknown;
    }
}

RuleReader::Account RuleReader::FindGroup(const toml::node& node, const std::string& name,
                                          gid_t& gid) {
    try {
        return accounts.FindGroup(name, gid) ? Account::kFound : Account::kNone;
    } catch (const LookUpFailed& failure) {
        Error(node, "group " + Quote(name) + " cannot be looked up: " + failure.what());
        return Account::kUnknown;
    }
}

void RuleReader::ReadUserName(const toml::node& node, const std::string& name, Users& users) {
    uid_t uid = 0;
    gid_t gid = 0;
    if (name == "*") {
        users.any = true;
    } else if (name[0] == '@') {
        const Account group = FindGroup(node, name.substr(1), gid);
        if (group == Account::kFound) {
            users.gids.insert(gid);
        } else if (group == Account::kNone) {
            Warn(node, "there is no group " + Quote(name.substr(1)));
        }
    } else if (IsMadeOf(name, kDigits)) {
        Error(node, "a user's number is written without quotes");
    } else {
        const Account user = FindUser(node, name, uid);
        if (user == Account::kFound) {
            users.uids.insert(uid);
        } else if (user == Account::kNone) {
            Warn(node, "there is no user " + Quote(name));
        }
    }
}

void RuleReader::ReadOwner(const toml::node& node, Rule& rule) {
    std::string name;
    if (ReadText(node, name) && FindUser(node, name, rule.owner) == Account::kNone) {
        Error(node, "there is no user " + Quote(name));
    }
}

void RuleReader::ReadGroup(const toml::node& node, Rule& rule) {
    std::string name;
    if (ReadText(node, name) && FindGroup(node, name, rule.group) == Account::kNone) {
        Error(node, "there is no group " + Quote(name));
    }
}

// ---- options and the rest

void RuleReader::ReadOptions(const toml::node& node, Rule& rule) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        Error(node, "options are written as options.allow and options.always");
        return;
    }
    for (const auto& [key, value] : *table) {
        if (key.str() == "allow") {
            ReadPatterns(value, rule.options, rule);
        } else if (key.str() == "always") {
            ReadAlways(value, rule);
        } else {
            Error(value, "unknown key " + Quote("options." + std::string(key.str())));
        }
    }
}

void RuleReader::ReadAlways(const toml::node& node, Rule& rule) {
    for (const toml::node* element : Elements(node)) {
        std::string option;
        if (ReadText(*element, option)) {
            CheckAlways(*element, option, rule);
            rule.usesGroup = rule.usesGroup || NamesGroup(Pattern::kGlob, option);
            rule.always.push_back(option);
        }
    }
}

// What is added is checked as strictly as what is asked for; it cannot say yes and no at once.
void RuleReader::CheckAlways(const toml::node& node, const std::string& option, const Rule& rule) {
    std::string why;
    const bool mounts = (AgentBit(rule.operation) & kAnyMount) != 0;
    if (!mounts) {
        const bool units = AgentBit(rule.operation) == kSystemctl;
        const bool good = units ? option == "quiet" || option == "no-block"
                                : option == "force" || option == "lazy" || option == "detach-loop";
        if (!good) {
            Error(node, "this option cannot be added always");
        }
        return;
    }
    if (!CheckOption(option, why)) {
        Error(node, why);
    } else if (option == "bind" || option == "loop") {
        Error(node, "the option " + Quote(option) + " can only be allowed");
    } else if ((option == "suid" && !rule.suid) || (option == "dev" && !rule.dev)) {
        Error(node, "the option " + Quote(option) + " needs '" + option + " = true' in the rule");
    }
    for (const std::string& other : rule.always) {
        if (other == "no" + option || option == "no" + other || (option == "ro" && other == "rw") ||
            (option == "rw" && other == "ro")) {
            Error(node, "the options " + Quote(option) + " and " + Quote(other) +
                            " contradict each other");
        }
    }
}

void RuleReader::ReadModes(const toml::node& node, Rule& rule) {
    for (const toml::node* element : Elements(node)) {
        const toml::value<std::string>* text = element->as_string();
        const std::optional<unsigned> mode =
            text == nullptr ? std::nullopt : ToNumber<unsigned>(text->get(), 8);
        if (!mode || text->get().size() > 4 || *mode > 0777) {
            Error(*element, "a mode is an octal text up to \"0777\"");
            return;
        }
        rule.modes.push_back(static_cast<int>(*mode));
    }
}

void RuleReader::ReadHelpers(const toml::node& node, Rule& rule) {
    for (const toml::node* element : Elements(node)) {
        std::string type;
        std::string why;
        if (!ReadText(*element, type)) {
            continue;
        }
        if (!CheckType(type, why) || type == "none" || type == "auto") {
            Error(*element, "a type is expected here that can have a helper");
        }
        rule.helpers.push_back(type);
    }
}

// The callers give up after 25 s, and the answer may come 3 s after the deadline.
const std::int64_t kLongestDeadline = 21000;

void RuleReader::ReadDeadline(const toml::node& node, Rule& rule) {
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
    rule.deadline = std::chrono::milliseconds(milliseconds);
}

// ---- the whole rule

void RuleReader::ReadKey(const KeyRow& row, const toml::node& node, unsigned operation,
                         Rule& rule) {
    if ((row.agents & operation) == 0) {
        Error(node, "the key " + Quote(row.key) + " is not for " + rule.operation);
    } else if (!rule.permit && !row.inDeny) {
        Error(node, "the key " + Quote(row.key) + " has no meaning in a rule that denies");
    } else {
        (this->*row.read)(node, rule);
    }
}

void RuleReader::CheckKeys(const toml::table& table) {
    for (const auto& [key, node] : table) {
        const std::string name(key.str());
        const bool known = std::any_of(std::begin(kKeys), std::end(kKeys),
                                       [&](const KeyRow& row) { return name == row.key; });
        if (!known) {
            Error(node, "unknown key " + Quote(name));
        }
    }
}

void RuleReader::CheckComplete(const toml::table& table, unsigned operation, const Rule& rule) {
    for (const KeyRow& row : kKeys) {
        const unsigned required = rule.permit ? row.required : row.requiredInDeny;
        if ((required & operation) != 0 && table.get(row.key) == nullptr) {
            Error(table, "the key " + Quote(row.key) + " is missing");
        }
    }
    const Variables none;
    const bool numbered = rule.kind.Match("b", none) || rule.kind.Match("c", none);
    if (rule.permit && operation == kMknod && numbered &&
        (rule.majors.ranges.empty() || rule.minors.ranges.empty())) {
        Error(table, "the keys 'major' and 'minor' are missing");
    }
}

void RuleReader::ReadFor(const std::string& operation, const toml::node& named,
                         const toml::table& table, std::vector<Rule>& rules) {
    const unsigned bit = AgentBit(operation);
    const toml::node* permit = table.get("permit");
    Rule rule;
    rule.where = At(table);
    rule.operation = operation;
    rule.users.any = table.get("user") == nullptr;
    if (bit == 0) {
        Error(named, "there is no agent " + Quote(operation));
        return;
    }
    if (permit != nullptr && !ReadBool(*permit, rule.permit)) {
        return;
    }
    // In the order of the keys here, so that `suid` is known before what it consents to.
    for (const KeyRow& row : kKeys) {
        if (const toml::node* node = table.get(row.key)) {
            ReadKey(row, *node, bit, rule);
        }
    }
    CheckComplete(table, bit, rule);
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
        std::string operation;
        if (ReadText(*element, operation)) {
            ReadFor(operation, *element, table, rules);
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
