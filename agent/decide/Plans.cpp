// SPDX-License-Identifier: Apache-2.0
// One function for each operation, and a table of them at the end.
//
// Every command has the same shape: the tool, what the agent always says, the request's options by
// their long names, "--", the operands. No text of the caller's stands before the "--" except as
// the value of -t or -o, or behind a "--NAME=" that the agent wrote.
#include "Plans.h"

#include <algorithm>

#include "base/Text.h"
#include "parse/BindOptions.h"

namespace agent {

namespace {

struct Build {
    const Rule& rule;
    const Request& request;
    const Variables& variables;
    Plan& plan;

    void Say(const std::string& word) const { plan.argv.push_back(word); }

    void SayPinned(const std::string& path, Pin::Kind kind, bool rootOwnedChain) const {
        Pin pin;
        pin.argument = plan.argv.size();
        pin.kind = kind;
        pin.path = path;
        pin.rootOwnedChain = rootOwnedChain;
        plan.pins.push_back(pin);
        Say(path);
    }
};

bool Contains(const std::vector<std::string>& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

// The rule's additions, then nosuid and nodev, which must be the last word.
Result<std::vector<std::string>> ForcedOptions(const Build& build) {
    std::vector<std::string> forced;
    for (const std::string& option : build.rule.always) {
        const std::optional<std::string> expanded = Expand(option, build.variables);
        if (!expanded) {
            return Refusal{"the caller's group is not known"};
        }
        if (*expanded != "nosuid" && *expanded != "nodev") {
            forced.push_back(*expanded);
        }
    }
    if (!build.rule.suid || Contains(build.rule.always, "nosuid")) {
        forced.push_back("nosuid");
    }
    if (!build.rule.dev || Contains(build.rule.always, "nodev")) {
        forced.push_back("nodev");
    }
    return forced;
}

// As flags, in the order of their words, so that what is forced overrules the rest here too.
Check ReadBindFlags(const Build& build, const std::vector<std::string>& options) {
    BindFlags flags;
    for (const std::string& option : options) {
        if (!IsBindOption(option)) {
            return Refusal{"a bind mount cannot have the option " + Quote(option)};
        }
        AddBindOption(option, flags);
    }
    build.plan.bind = flags;
    return Fine();
}

// "-o LIST" with the caller's options first, so that what is forced overrules them.
Check SayOptions(const Build& build) {
    const Result<std::vector<std::string>> forced = ForcedOptions(build);
    if (!forced) {
        return forced.GetRefusal();
    }
    std::vector<std::string> options;
    for (const std::string& option : build.request.options) {
        if (!Contains(*forced, option)) {
            options.push_back(option);
        }
    }
    options.insert(options.end(), forced->begin(), forced->end());
    if (!options.empty()) {
        build.Say("-o");
        build.Say(Join(options, ","));
    }
    for (const char* flag : {"nosuid", "nodev", "noexec", "ro", "nosymfollow"}) {
        if (Contains(*forced, flag)) {
            build.plan.requiredMountFlags.push_back(flag);
        }
    }
    build.plan.makesMount = true;
    return build.request.type == "none" ? ReadBindFlags(build, options) : Fine();
}

// A table of mounts beside the kernel's ("-n": none) would keep a lock that anybody may hold.
Check BuildMount(const Build& build) {
    const Request& request = build.request;
    if (!Contains(build.rule.helpers, request.type)) {
        build.Say("-i");
    }
    build.Say("-n");
    build.Say("--no-canonicalize");
    if (request.type != "none") {
        build.Say("-t");
        build.Say(request.type);
    }
    if (Check said = SayOptions(build); !said) {
        return said;
    }
    build.Say("--");
    if (StartsWith(request.source, "/")) {
        const bool bind = request.type == "none";
        build.SayPinned(request.source, bind ? Pin::kAny : Pin::kFile, !build.rule.openParents);
    } else {
        build.Say(request.source);
    }
    build.SayPinned(request.target, Pin::kDirectory, !build.rule.openParents);
    return Fine();
}

Check BuildMountShare(const Build& build) {
    if (Check said = SayOptions(build); !said) {
        return said;
    }
    build.Say("--");
    build.Say(build.request.source);
    build.SayPinned(build.request.target, Pin::kDirectory, !build.rule.openParents);
    build.plan.secret = build.request.secret;
    build.plan.secretFile = build.request.secretFile;
    return Fine();
}

// The flags of request and rule, each once, by their long names.
void SayFlags(const Build& build) {
    std::vector<std::string> flags;
    for (const std::vector<std::string>* list : {&build.request.options, &build.rule.always}) {
        for (const std::string& flag : *list) {
            if (!Contains(flags, flag)) {
                flags.push_back(flag);
                build.Say("--" + flag);
            }
        }
    }
}

// Nothing but the operation itself is umount(8)'s here: see run/Unmount.h.
Check BuildUmount(const Build& build) {
    build.Say("-i");
    build.Say("--no-canonicalize");
    SayFlags(build);
    build.Say("--");
    build.SayPinned(build.request.target, Pin::kMountPoint, !build.rule.openParents);
    return Fine();
}

Check BuildMknod(const Build& build) {
    const Request& request = build.request;
    const int fallback = build.rule.modes.empty() ? 0600 : build.rule.modes.front();
    const int mode = request.mode == -1 ? fallback : request.mode;
    build.Say("-m");
    build.Say("0" + std::to_string(mode >> 6 & 7) + std::to_string(mode >> 3 & 7) +
              std::to_string(mode & 7));
    build.Say("--");
    build.SayPinned(request.path, Pin::kParent, !build.rule.openParents);
    build.Say(request.kind);
    if (request.kind != "p") {
        build.Say(std::to_string(request.majorNumber));
        build.Say(std::to_string(request.minorNumber));
    }
    NodeSpec node;
    node.type = request.kind == "p" ? kPipeNode : request.kind == "b" ? kBlockNode : kCharacterNode;
    node.mode = static_cast<mode_t>(mode);
    node.majorNumber = request.majorNumber;
    node.minorNumber = request.minorNumber;
    node.owner = build.rule.owner;
    node.group = build.rule.group;
    build.plan.node = node;
    return Fine();
}

Check BuildInsmod(const Build& build) {
    build.Say("--");
    build.SayPinned(build.request.path, Pin::kModule, true);
    for (const std::string& parameter : build.request.parameters) {
        build.Say(parameter);
    }
    return Fine();
}

Check BuildRmmod(const Build& build) {
    build.Say("--");
    build.Say(build.request.module);
    return Fine();
}

Check BuildSystemctl(const Build& build) {
    build.Say("--no-pager");
    build.Say("--no-ask-password");
    SayFlags(build);
    build.Say("--");
    build.Say(build.request.verb);
    for (const std::string& unit : build.request.units) {
        build.Say(unit);
    }
    return Fine();
}

struct BuilderRow {
    Operation operation;
    Check (*run)(const Build& build);
};

const BuilderRow kBuilders[] = {
    {Operation::kMount, BuildMount},          {Operation::kUmount, BuildUmount},
    {Operation::kMountCifs, BuildMountShare}, {Operation::kUmountCifs, BuildUmount},
    {Operation::kMknod, BuildMknod},          {Operation::kInsmod, BuildInsmod},
    {Operation::kRmmod, BuildRmmod},          {Operation::kSystemctl, BuildSystemctl},
};

}  // namespace

Result<Plan> BuildPlan(const Rule& rule, const Request& request, const Tools& tools,
                       const Variables& variables) {
    Plan plan;
    plan.operation = request.operation;
    plan.argv.push_back(tools.PathFor(request.operation));
    plan.deadline = rule.deadline;
    for (const BuilderRow& row : kBuilders) {
        if (row.operation == request.operation) {
            const Check built = row.run(Build{rule, request, variables, plan});
            return built ? Result<Plan>(std::move(plan)) : built.GetRefusal();
        }
    }
    return Refusal{"there is no such operation"};
}

}  // namespace agent
