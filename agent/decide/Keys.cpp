// SPDX-License-Identifier: Apache-2.0
// The table is AllKeys(). Above it stands how a key's patterns are held against a request: a
// pattern that does not compile counts as matching, since whether a rule would decide must not
// depend on a pattern that nobody can read.
//
// A new key is a member of Rule and a row of the table. A key that an operation gains is one more
// operation in its row: what no row of the operation names, no rule about it can restrict.
#include "Keys.h"

#include <algorithm>

#include "Covers.h"
#include "Flaws.h"
#include "base/Text.h"
#include "parse/Nodes.h"
#include "parse/Units.h"

namespace agent {

namespace {

bool Fits(const Patterns& patterns, const std::string& text, const Asked& asked) {
    return patterns.Match(text, asked.variables) ||
           std::any_of(patterns.list.begin(), patterns.list.end(),
                       [](const Pattern& pattern) { return !pattern.GetError().empty(); });
}

// ---- what of a request does not fit

std::string MissUser(const Key& key, const Rule& rule, const Asked& asked) {
    return IsNamed(rule, asked.caller) == Named::kNo ? key.what : "";
}

// An executable that cannot be known is no reason to permit, and none to let pass.
std::string MissExecutable(const Key& key, const Rule& rule, const Asked& asked) {
    const bool unknown = asked.caller.executable.empty() && !rule.permit;
    return !rule.exe.given || unknown || Fits(rule.exe, asked.caller.executable, asked) ? ""
                                                                                        : key.what;
}

template <Patterns Rule::*patterns, std::string Request::*text>
std::string MissText(const Key& key, const Rule& rule, const Asked& asked) {
    const bool fits = !(rule.*patterns).given || Fits(rule.*patterns, asked.request.*text, asked);
    return fits ? "" : key.what;
}

// Where the kernel looks for the type, it may find the one that the rule denies.
std::string MissType(const Key& key, const Rule& rule, const Asked& asked) {
    const bool mayBeAny = !rule.permit && asked.request.type == "auto";
    return mayBeAny ? "" : MissText<&Rule::type, &Request::type>(key, rule, asked);
}

// No numbers: none in a rule that permits, any in one that denies.
template <Numbers Rule::*numbers, unsigned Request::*number>
std::string MissNumber(const Key& key, const Rule& rule, const Asked& asked) {
    const Request& request = asked.request;
    if (request.kind != "b" && request.kind != "c") {
        return "";
    }
    const Numbers& listed = rule.*numbers;
    const bool fits = listed.ranges.empty() ? !rule.permit : listed.Has(request.*number);
    return fits ? "" : key.what;
}

std::string MissMode(const Key& key, const Rule& rule, const Asked& asked) {
    const int mode = asked.request.mode;
    const bool listed = std::count(rule.modes.begin(), rule.modes.end(), mode) != 0;
    const bool usual = rule.modes.empty() && mode == 0600;
    return !rule.permit || mode == -1 || listed || usual ? "" : key.what;
}

std::string MissParameter(const Key& key, const Rule& rule, const Asked& asked) {
    for (const std::string& parameter : asked.request.parameters) {
        if (rule.permit && !Fits(rule.parameters, parameter, asked)) {
            return key.what + Quote(parameter);
        }
    }
    return "";
}

// All units must be permitted; of those that are denied, one is enough.
std::string MissUnit(const Key& key, const Rule& rule, const Asked& asked) {
    const std::vector<std::string>& units = asked.request.units;
    const auto fits = [&](const std::string& unit) { return Fits(rule.units, unit, asked); };
    const bool good = rule.permit ? std::all_of(units.begin(), units.end(), fits)
                                  : std::any_of(units.begin(), units.end(), fits);
    return !rule.units.given || good ? "" : key.what;
}

// Four of them change what a mount is: a wildcard is not enough to mean them, and the last two need
// the rule's consent besides.
bool AllowsOption(const Rule& rule, const std::string& option, const Asked& asked) {
    const bool special =
        option == "bind" || option == "loop" || option == "suid" || option == "dev";
    if (!special) {
        return Fits(rule.options, option, asked);
    }
    const bool consent = (option != "suid" || rule.suid) && (option != "dev" || rule.dev);
    return consent && std::any_of(rule.options.list.begin(), rule.options.list.end(),
                                  [&](const Pattern& pattern) {
                                      return pattern.IsLiteral() && pattern.GetText() == option;
                                  });
}

std::string MissOption(const Key& key, const Rule& rule, const Asked& asked) {
    if (!rule.permit) {
        return "";
    }
    const Request& request = asked.request;
    for (const std::string& option : request.options) {
        if (!AllowsOption(rule, option, asked)) {
            return key.what + Quote(option);
        }
    }
    // A password is allowed as a whole, by the bare word.
    if (!request.secret.empty() && !Fits(rule.options, "password", asked)) {
        return key.what + Quote("password");
    }
    if (!request.secretFile.empty() &&
        !Fits(rule.options, "credentials=" + request.secretFile, asked)) {
        return key.what + Quote("credentials");
    }
    return "";
}

// ---- words that a rule names whole: what a wildcard covers changes when one is added

Check CheckKind(const std::string& word) {
    return word == "b" || word == "c" || word == "p" ? Fine()
                                                     : Refusal{"this can only be one of b, c, p"};
}

Check CheckVerb(const std::string& word) {
    return IsVerb(word) ? Fine() : Refusal{"this is not an available verb"};
}

// ---- rows

// A key that decides nothing: it shapes the command of a rule that permits.
Key Shapes(const char* name, Operations has, const Member& member) {
    Key key;
    key.name = name;
    key.has = has;
    key.member = member;
    return key;
}

// A key without which there is no rule.
Key Heads(const char* name, const Member& member) {
    Key key = Shapes(name, Operations::All(), member);
    key.needed = key.has;
    key.neededToDeny = true;
    key.inDeny = true;
    return key;
}

// A key that decides, in a rule that denies too.
Key Decides(const char* name, Operations has, const Member& member, const char* what, Miss miss,
            Coverage covers) {
    Key key = Shapes(name, has, member);
    key.inDeny = true;
    key.what = what;
    key.miss = miss;
    key.covers = covers;
    return key;
}

// A key by which a rule that permits names what it permits besides: without it, nothing.
Key Permits(const char* name, Operations has, const Member& member, const char* what, Miss miss,
            Coverage covers) {
    Key key = Decides(name, has, member, what, miss, covers);
    key.inDeny = false;
    return key;
}

// Patterns for one text of the request; a rule that permits must have them.
template <Patterns Rule::*patterns, std::string Request::*text>
Key Text(const char* name, Operations has, const char* what, Flaw flaw) {
    Key key =
        Decides(name, has, patterns, what, MissText<patterns, text>, CoversPatterns<patterns>);
    key.needed = has;
    key.weighs = true;
    key.flaw = flaw;
    return key;
}

// The same with whole words instead of patterns.
template <Patterns Rule::*patterns, std::string Request::*text>
Key Word(const char* name, Operations has, const char* what,
         Check (*check)(const std::string& word)) {
    Key key = Text<patterns, text>(name, has, what, nullptr);
    key.member = ListedWords{patterns, check};
    return key;
}

template <Numbers Rule::*numbers, unsigned Request::*number>
Key Number(const char* name, Operations has, const char* what, unsigned most) {
    return Decides(name, has, BoundedNumbers{numbers, most}, what, MissNumber<numbers, number>,
                   CoversNumbers<numbers>);
}

Key User() {
    Key key = Decides("user", Operations::All(), &Rule::users, "the caller", MissUser, CoversUsers);
    key.needed = key.has;
    key.weighs = true;
    return key;
}

Key Executable() {
    Key key = Decides("exe", Operations::All(), &Rule::exe, "the executable", MissExecutable,
                      CoversPatterns<&Rule::exe>);
    key.weighs = true;
    key.flaw = FlawInPath;
    return key;
}

Key Type(Operations has) {
    Key key = Text<&Rule::type, &Request::type>("type", has, "the type", FlawInType);
    key.miss = MissType;
    return key;
}

// A module's file has its name, so who may load the file need not name it.
Key Module(Operations has, Operations needed) {
    Key key = Text<&Rule::module, &Request::module>("module", has, "the module", FlawInModule);
    key.needed = needed;
    return key;
}

Key Unit(Operations has) {
    Key key = Decides("unit", has, &Rule::units, "a unit", MissUnit, CoversPatterns<&Rule::units>);
    key.needed = has;
    key.flaw = FlawInUnit;
    return key;
}

Key Options(Operations has) {
    Key key = Permits("options", has, OptionLists{&Rule::options, &Rule::always}, "the option ",
                      MissOption, CoversAllowed<&Rule::options>);
    key.flaw = FlawInOption;
    return key;
}

std::vector<Key> AllKeys() {
    const Operations local = Operations::Those(MountChange::kAddsLocal);
    const Operations mounting = local | Operations::Those(MountChange::kAddsShare);
    const Operations unmounting = Operations::Those(MountChange::kRemoves);
    const Operations mknod = {Operation::kMknod};
    const Operations insmod = {Operation::kInsmod};
    const Operations rmmod = {Operation::kRmmod};
    const Operations systemctl = {Operation::kSystemctl};
    return {
        Heads("agent", ReadBefore{}),
        Heads("permit", ReadBefore{}),
        Heads("name", &Rule::name),
        User(),
        Executable(),
        Text<&Rule::source, &Request::source>("source", mounting, "the source", FlawInSource),
        Text<&Rule::target, &Request::target>("target", mounting | unmounting, "the mount point",
                                              FlawInPath),
        Type(local),
        Text<&Rule::path, &Request::path>("path", mknod | insmod, "the path", FlawInPath),
        Word<&Rule::kind, &Request::kind>("kind", mknod, "the kind", CheckKind),
        Number<&Rule::majors, &Request::majorNumber>("major", mknod, "the major number",
                                                     kMostMajor),
        Number<&Rule::minors, &Request::minorNumber>("minor", mknod, "the minor number",
                                                     kMostMinor),
        Permits("mode", mknod, &Rule::modes, "the mode", MissMode, CoversModes),
        Shapes("owner", mknod, UserName{&Rule::owner}),
        Shapes("group", mknod, GroupName{&Rule::group}),
        Module(insmod | rmmod, rmmod),
        Permits("parameters", insmod, &Rule::parameters, "the parameter ", MissParameter,
                CoversAllowed<&Rule::parameters>),
        Word<&Rule::verb, &Request::verb>("verb", systemctl, "the verb", CheckVerb),
        Unit(systemctl),
        // The consents come before the options, which need them.
        Shapes("suid", mounting, &Rule::suid),
        Shapes("dev", mounting, &Rule::dev),
        Options(mounting | unmounting | systemctl),
        Shapes("helper", local, &Rule::helpers),
        Shapes("open_parents", mounting | unmounting | mknod, &Rule::openParents),
        Shapes("deadline", Operations::All(), &Rule::deadline),
    };
}

}  // namespace

const std::vector<Key>& Keys() {
    static const std::vector<Key> kKeys = AllKeys();
    return kKeys;
}

const Patterns* PatternsOf(const Key& key, const Rule& rule) {
    if (const auto* patterns = std::get_if<Patterns Rule::*>(&key.member)) {
        return &(rule.**patterns);
    }
    if (const auto* words = std::get_if<ListedWords>(&key.member)) {
        return &(rule.*words->patterns);
    }
    const auto* lists = std::get_if<OptionLists>(&key.member);
    return lists != nullptr ? &(rule.*lists->allow) : nullptr;
}

Named IsNamed(const Rule& rule, const Caller& caller) {
    const Users& users = rule.users;
    if (users.any || users.uids.count(caller.uid) != 0 ||
        std::any_of(caller.groups.begin(), caller.groups.end(),
                    [&](gid_t group) { return users.gids.count(group) != 0; })) {
        return Named::kYes;
    }
    if (rule.permit) {
        return Named::kNo;
    }
    // A caller can lay a group down, but stays in the account database what he is.
    Named named = Named::kNo;
    for (const gid_t group : users.gids) {
        if (caller.account.groups.count(group) != 0) {
            return Named::kYes;
        }
        named = caller.account.asked.count(group) == 0 ? Named::kPerhaps : named;
    }
    return named;
}

}  // namespace agent
