// SPDX-License-Identifier: Apache-2.0
// See Oracle.h. Written from the sentences about what a command may be, not from the code that
// builds it: it walks over the finished words as the tool would.
#include "Oracle.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <sstream>

#include "RuleTexts.h"
#include "decide/Decide.h"

using agent::Pin;

namespace {

using Words = std::vector<std::string>;

Words AtCommas(const std::string& text) {
    Words parts;
    std::string part;
    std::istringstream stream(text);
    while (std::getline(stream, part, ',')) {
        parts.push_back(part);
    }
    if (text.empty() || text.back() == ',') {
        parts.push_back("");
    }
    return parts;
}

bool Contains(const Words& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

// ".." stands between the beginning of the value, '/', ':' and the end.
bool Climbs(const std::string& option) {
    std::string value =
        ":" + option.substr(std::min(option.find('='), option.size() - 1) + 1) + ":";
    std::replace(value.begin(), value.end(), ':', '/');
    return value.find("/../") != std::string::npos;
}

class Judge {
public:
    Judge(const agent::Rule& rule_, const agent::Caller& caller, const agent::Tools& tools_,
          const agent::Plan& plan_)
        : rule(rule_), tools(tools_), plan(plan_) {
        variables.uid = std::to_string(caller.uid);
        if (const auto group = TestAccounts().FindPrimaryGroup(caller.uid)) {
            variables.gid = std::to_string(*group);
        }
        for (const std::string& option : rule.always) {
            always.push_back(agent::Expand(option, variables).value_or(""));
        }
    }

    Words Run() {
        Demand(rule.permit && rule.operation == plan.operation,
               "the rule does not permit this operation");
        Demand(!plan.argv.empty(), "there is no command");
        const auto separator = std::find(plan.argv.begin(), plan.argv.end(), "--");
        Demand(separator != plan.argv.end(), "there is no '--'");
        if (!objections.empty()) {
            return objections;
        }
        front.assign(plan.argv.begin() + 1, separator);
        operands.assign(separator + 1, plan.argv.end());
        CheckWords();
        CheckPins();
        CheckOperation();
        return objections;
    }

private:
    void Demand(bool holds, const std::string& otherwise) {
        if (!holds) {
            objections.push_back(otherwise);
        }
    }

    bool Allowed(const agent::Patterns& patterns, const std::string& text) const {
        return patterns.Match(text, variables);
    }

    void CheckWords() {
        const auto milliseconds = plan.deadline.count();
        Demand(milliseconds > 0 && milliseconds <= 21000, "the deadline is out of bounds");
        for (const std::string& operand : operands) {
            Demand(!operand.empty() && operand[0] != '-', "an operand is empty or begins with '-'");
        }
        for (const std::string& word : plan.argv) {
            for (const char c : word) {
                const auto byte = static_cast<unsigned char>(c);
                Demand(byte >= 0x20 && byte != 0x7f, "a control character is in the command");
            }
        }
    }

    // Each local path among the operands is pinned, to the letter.
    void CheckPins() {
        std::map<std::size_t, const Pin*> pinned;
        for (const Pin& pin : plan.pins) {
            Demand(pinned.emplace(pin.argument, &pin).second, "an argument is pinned twice");
            Demand(pin.argument < plan.argv.size() && plan.argv[pin.argument] == pin.path,
                   "a pin is not for its argument");
            Demand(pin.path.size() > 1 && pin.path[0] == '/' && pin.path.back() != '/',
                   "a pinned path has the wrong form");
            const std::string open = pin.path + "/";
            Demand(open.find("/../") == std::string::npos &&
                       open.find("/./") == std::string::npos &&
                       open.find("//") == std::string::npos,
                   "a pinned path is not normal");
            Demand(pin.rootOwnedChain || rule.openParents, "a pin's parents may be anybody's");
        }
        const std::size_t first = plan.argv.size() - operands.size();
        for (std::size_t i = 0; i < operands.size(); ++i) {
            const bool path = operands[i][0] == '/' && operands[i].compare(0, 2, "//") != 0;
            Demand(!path || pinned.count(first + i) == 1, "a path is not pinned");
        }
    }

    bool HasPin(std::size_t operand, Pin::Kind kind) const {
        const std::size_t argument = plan.argv.size() - operands.size() + operand;
        return std::any_of(plan.pins.begin(), plan.pins.end(), [&](const Pin& pin) {
            return pin.argument == argument && pin.kind == kind;
        });
    }

    void CheckOperation() {
        const std::string name = agent::NameOf(plan.operation);
        if (name == "sr_mount" || name == "sr_mount_cifs") {
            CheckMount(name == "sr_mount");
        } else if (name == "sr_umount" || name == "sr_umount_cifs") {
            CheckUmount();
        } else if (name == "sr_mknod") {
            CheckNode();
        } else if (name == "sr_insmod") {
            CheckModule();
        } else if (name == "sr_rmmod") {
            Demand(plan.argv[0] == tools.paths.at("rmmod"), "the tool is not rmmod");
            Demand(front.empty() && operands.size() == 1 && Allowed(rule.module, operands[0]),
                   "the module is not allowed");
        } else if (name == "sr_systemctl") {
            CheckUnits();
        } else {
            Demand(false, "there is no such operation");
        }
    }

    void CheckMount(bool local) {
        std::string type;
        Words options;
        bool internal = false;
        bool noTable = false;
        for (std::size_t i = 0; i < front.size(); ++i) {
            const bool hasValue = i + 1 < front.size();
            if (local && front[i] == "-i") {
                internal = true;
            } else if (local && front[i] == "-n") {
                noTable = true;
            } else if (local && front[i] == "-t" && hasValue && type.empty()) {
                type = front[++i];
            } else if (front[i] == "-o" && hasValue && options.empty()) {
                options = AtCommas(front[++i]);
            } else {
                Demand(local && front[i] == "--no-canonicalize", "unexpected word " + front[i]);
            }
        }
        Demand(plan.argv[0] == (local ? tools.paths.at("mount") : tools.paths.at("mount.cifs")),
               "the tool is not mount");
        CheckMountOptions(options);
        if (local) {
            const bool bind = Contains(options, "bind");
            Demand(Contains(front, "--no-canonicalize"), "paths would be resolved again");
            Demand(noTable, "a table of mounts would be kept");
            Demand(plan.bind.has_value() == bind, "a bind mount is the tool's, or another not");
            if (plan.bind) {
                CheckBind(options);
            }
            Demand(bind == type.empty(), "a type is missing, or one too many");
            Demand(Allowed(rule.type, bind ? "none" : type), "the type is not allowed");
            Demand(internal || Contains(rule.helpers, type), "a mount helper could run");
            Demand(type.compare(0, 4, "fuse") != 0, "fuse runs programs");
            Demand(operands[0].compare(0, 1, "/") != 0 || HasPin(0, bind ? Pin::kAny : Pin::kFile),
                   "the source is not pinned");
        }
        Demand(operands.size() == 2 && Allowed(rule.source, operands[0]) &&
                   Allowed(rule.target, operands[1]) && HasPin(1, Pin::kDirectory),
               "source or mount point are not allowed");
    }

    // The words say the same as the flags, which must have what is forced; what the source has of
    // them is never taken away.
    void CheckBind(const Words& options) {
        std::uint64_t set = 0;
        const std::map<std::string, std::uint64_t> bits = {
            {"ro", 1}, {"nosuid", 2}, {"nodev", 4}, {"noexec", 8},
            {"rw", 1}, {"suid", 2},   {"dev", 4},   {"exec", 8}};
        for (const std::string& option : options) {
            const auto bit = bits.find(option);
            if (bit != bits.end()) {
                const bool sets = option == "ro" || option.compare(0, 2, "no") == 0;
                set = sets ? set | bit->second : set & ~bit->second;
            }
        }
        Demand((plan.bind->set & 15) == set && (plan.bind->clear & 15) == 0,
               "the flags of a bind mount are not its options");
        Demand((plan.bind->set & plan.bind->clear & 15) == 0, "a flag is set and cleared");
        for (const std::string& flag : plan.requiredMountFlags) {
            const auto bit = bits.find(flag);
            Demand(bit == bits.end() || (plan.bind->set & bit->second) != 0,
                   "the forced flag " + flag + " is not set");
        }
    }

    void CheckMountOptions(const Words& options) {
        Demand(plan.makesMount && !plan.node, "it makes no mount, or a node");
        for (const std::string& option : options) {
            const bool forced = option == "nosuid" || option == "nodev" || Contains(always, option);
            Demand(forced || Allowed(rule.options, option), "the option " + option);
            Demand(option.find_first_of("\"'\\") == std::string::npos, "a quote is in an option");
            const std::string key = option.substr(0, option.find('='));
            Demand(!Climbs(option), "a path climbs in the option " + option);
            if (key == "lowerdir" || key == "upperdir" || key == "workdir") {
                Demand(option.compare(key.size(), 2, "=/") == 0 &&
                           option.find(':') == std::string::npos,
                       "more than one directory in the option " + option);
            }
            for (const char* never : {"remount", "move", "rbind", "source", "helper", "uhelper",
                                      "users", "owner", "group", "pass", "password"}) {
                Demand(key != never, "the option " + option);
            }
            const bool share = plan.operation == agent::Operation::kMountCifs;
            for (const char* never : {"unc", "prefixpath", "cred", "credentials", "target"}) {
                Demand(!share || key != never, "the option " + option);
            }
            Demand(key.compare(0, 2, "x-") != 0 && key.compare(0, 2, "X-") != 0,
                   "the option " + option);
        }
        // Nothing of the caller's may follow the flags that protect the system.
        const std::size_t count = options.size();
        if (!rule.suid && !rule.dev) {
            Demand(count >= 2 && options[count - 2] == "nosuid" && options[count - 1] == "nodev",
                   "nosuid,nodev are not the last word");
            Demand(Contains(plan.requiredMountFlags, "nosuid") &&
                       Contains(plan.requiredMountFlags, "nodev"),
                   "nosuid,nodev are not looked for afterwards");
        }
        for (const std::string& option : always) {
            Demand(Contains(options, option), "an option of the rule's is missing");
        }
    }

    void CheckUmount() {
        for (const std::string& word : front) {
            const bool flag =
                word.compare(0, 2, "--") == 0 &&
                (Allowed(rule.options, word.substr(2)) || Contains(always, word.substr(2)));
            const bool known = word == "--force" || word == "--lazy" || word == "--detach-loop";
            Demand(word == "-i" || word == "--no-canonicalize" || (flag && known),
                   "unexpected word " + word);
        }
        Demand(Contains(front, "-i") && Contains(front, "--no-canonicalize"),
               "a helper could run, or paths be resolved");
        Demand(plan.argv[0] == tools.paths.at("umount"), "the tool is not umount");
        Demand(operands.size() == 1 && Allowed(rule.target, operands[0]) &&
                   HasPin(0, Pin::kMountPoint),
               "the mount point is not allowed");
    }

    void CheckNode() {
        Demand(plan.argv[0] == "mknod" && plan.node && !plan.makesMount,
               "the agent does not make it itself");
        if (!plan.node) {
            return;
        }
        Demand(front.size() == 2 && front[0] == "-m" && front[1].size() == 4 && front[1][0] == '0',
               "the mode has the wrong form");
        const int mode = front.size() == 2 ? std::stoi(front[1], nullptr, 8) : -1;
        const bool listed = std::count(rule.modes.begin(), rule.modes.end(), mode) != 0;
        Demand(listed || (rule.modes.empty() && mode == 0600), "the mode is not allowed");
        Demand(operands.size() >= 2 && Allowed(rule.path, operands[0]) &&
                   Allowed(rule.kind, operands[1]) && HasPin(0, Pin::kParent),
               "the node is not allowed");
        const bool pipe = operands.size() >= 2 && operands[1] == "p";
        Demand(operands.size() == (pipe ? 2U : 4U), "the numbers are too few or too many");
        if (!pipe && operands.size() == 4) {
            Demand(rule.majors.Has(static_cast<unsigned>(std::stoul(operands[2]))) &&
                       rule.minors.Has(static_cast<unsigned>(std::stoul(operands[3]))),
                   "the numbers are not allowed");
        }
        const agent::NodeSpec& node = *plan.node;
        const std::string kind = operands.size() >= 2 ? operands[1] : "";
        Demand(static_cast<int>(node.mode) == mode && node.type == (kind == "p"   ? S_IFIFO
                                                                    : kind == "b" ? S_IFBLK
                                                                                  : S_IFCHR),
               "the node is not as its command says");
        Demand(pipe || operands.size() != 4 ||
                   (std::to_string(node.majorNumber) == operands[2] &&
                    std::to_string(node.minorNumber) == operands[3]),
               "the node's numbers are not those of its command");
        Demand(node.owner == rule.owner && node.group == rule.group, "the owner is another");
    }

    void CheckModule() {
        Demand(plan.argv[0] == tools.paths.at("insmod"), "the tool is not insmod");
        Demand(front.empty() && !operands.empty() && Allowed(rule.path, operands[0]) &&
                   HasPin(0, Pin::kModule) && plan.pins[0].rootOwnedChain,
               "the module is not allowed");
        for (std::size_t i = 1; i < operands.size(); ++i) {
            Demand(Allowed(rule.parameters, operands[i]), "the parameter " + operands[i]);
            Demand(operands[i].find_first_of(" \"'\\") == std::string::npos,
                   "a parameter could begin another");
        }
    }

    void CheckUnits() {
        Demand(plan.argv[0] == tools.paths.at("systemctl"), "the tool is not systemctl");
        Demand(Contains(front, "--no-pager") && Contains(front, "--no-ask-password"),
               "a pager or an agent for passwords could run");
        for (const std::string& word : front) {
            const std::string flag = word.compare(0, 2, "--") == 0 ? word.substr(2) : "";
            Demand(flag == "no-pager" || flag == "no-ask-password" || Allowed(rule.options, flag) ||
                       Contains(always, flag),
                   "unexpected word " + word);
            Demand(flag != "host" && flag != "machine" && flag != "root", "another system");
        }
        Demand(operands.size() >= 2 && Allowed(rule.verb, operands[0]), "the verb is not allowed");
        for (std::size_t i = 1; i < operands.size(); ++i) {
            Demand(Allowed(rule.units, operands[i]), "the unit " + operands[i]);
            Demand(operands[i].find_first_of("/*?[") == std::string::npos, "a path or a wildcard");
        }
    }

    const agent::Rule& rule;
    const agent::Tools& tools;
    const agent::Plan& plan;
    agent::Variables variables;
    Words always;
    Words front;
    Words operands;
    Words objections;
};

// The password stands in the command although the caller wrote it nowhere else.
bool Leaks(const agent::Request& request, const agent::Plan& plan) {
    std::string said = request.source + " " + request.target;
    for (const std::string& option : request.options) {
        said += " " + option;
    }
    if (plan.secret.size() < 6 || said.find(plan.secret) != std::string::npos) {
        return false;
    }
    return std::any_of(plan.argv.begin(), plan.argv.end(), [&](const std::string& word) {
        return word.find(plan.secret) != std::string::npos;
    });
}

bool CallerIsNamed(const agent::Users& users, const agent::Caller& caller) {
    if (users.any || users.uids.count(caller.uid) == 1) {
        return true;
    }
    return std::any_of(caller.groups.begin(), caller.groups.end(),
                       [&](gid_t group) { return users.gids.count(group) == 1; });
}

}  // namespace

Words Objections(const agent::Rule& rule, const agent::Caller& caller, const agent::Tools& tools,
                 const agent::Plan& plan) {
    Words objections = Judge(rule, caller, tools, plan).Run();
    if (!CallerIsNamed(rule.users, caller)) {
        objections.push_back("the rule is not for this caller");
    }
    return objections;
}

Words Ask(const agent::RuleSet& set, const agent::Caller& caller, const std::string& agentName,
          const std::string& text, bool& permitted) {
    static const agent::Tools kTools;
    permitted = false;
    const agent::Parsed parsed = agent::Parse(agentName, text);
    if (parsed.status != SR_OK) {
        return parsed.error.empty() ? Words{"a refusal without a reason"} : Words{};
    }
    const agent::Decision decision = agent::Decider(kTools).Decide(set, caller, parsed.request);
    if ((decision.status == SR_OK) != decision.permit.has_value()) {
        return {"status and permit disagree"};
    }
    if (!decision.permit) {
        return decision.reason.empty() ? Words{"a refusal without a reason"} : Words{};
    }
    permitted = true;
    if (Leaks(parsed.request, decision.permit->GetPlan())) {
        return {"the secret is in the command"};
    }
    for (const agent::Rule& rule : set.rules) {
        if (rule.where == decision.rule && agent::NameOf(rule.operation) == agentName) {
            return Objections(rule, caller, kTools, decision.permit->GetPlan());
        }
    }
    return {"a permit of no rule"};
}
