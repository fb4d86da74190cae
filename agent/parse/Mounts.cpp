// SPDX-License-Identifier: Apache-2.0
// Mounting what this machine has, and unmounting anything. What a caller's word could do beyond
// the mount it names is refused here: run a program, change other mounts, lead out of a directory
// that a rule allows, or swallow the options that the agent puts behind the caller's.
#include "Mounts.h"

#include <algorithm>

#include "BindOptions.h"
#include "Field.h"
#include "base/Text.h"

namespace agent {

namespace {

// "HOST:/PATH"; the host's part must be plain, so that no tag ("LABEL=x") passes for one.
Check StoreRemoteSource(Request& request, const std::string& value) {
    const std::size_t colon = value.find(':');
    const std::string host = value.substr(0, colon);
    if (!IsMadeOf(host, (std::string(kAlnum) + ".-").c_str())) {
        return Refusal{"the source's host is malformed"};
    }
    const Result<std::string> path = CleanPath(value.substr(colon + 1));
    return path ? StoreOnce(request.source, host + ":" + *path, "the source") : path.GetRefusal();
}

// Tags such as LABEL=x are refused with the other malformed sources: whoever brings the medium
// chooses its label.
Check StoreSource(Request& request, const std::string& value) {
    if (StartsWith(value, "/")) {
        const Result<std::string> path = CleanPath(value);
        return path ? StoreOnce(request.source, *path, "the source") : path.GetRefusal();
    }
    if (value.find(":/") != std::string::npos) {
        return StoreRemoteSource(request, value);
    }
    if (!IsMadeOf(value, (std::string(kAlnum) + "_-").c_str()) || value.size() > kLongestName) {
        return Refusal{"the source is neither an absolute path nor a plain name"};
    }
    return StoreOnce(request.source, value, "the source");
}

// An option's value may hold paths, several between colons; none may lead out of what a rule names.
bool Climbs(const std::string& value) {
    for (const std::string& path : Split(value, ':')) {
        const std::vector<std::string> parts = Split(path, '/');
        if (std::count(parts.begin(), parts.end(), "..") != 0) {
            return true;
        }
    }
    return false;
}

// A directory of an overlay is exactly what the rule's pattern was held against.
Check CheckOverlay(const std::string& key, const std::string& value) {
    const Result<std::string> path = CleanPath(value);
    if (!path || *path != value || value.find(':') != std::string::npos) {
        return Refusal{"the option " + Quote(key) + " takes one clean absolute path"};
    }
    return Fine();
}

Check StoreType(Request& request, const std::string& value) {
    const Check good = CheckType(value);
    return good ? StoreOnce(request.type, value, "the type") : good;
}

// These give the caller of mount(8) rights over the mount, or come from a table of mounts; for a
// share `user` is something else and is taken before this is asked.
bool IsOwnershipOption(const std::string& key) {
    return IsOneOf(key, {"user", "users", "owner", "group"});
}

Check StoreMountOptions(Request& request, const std::string& value) {
    for (const std::string& option : Split(value, ',')) {
        Check good = CheckOption(option);
        good = good ? AddOption(request, option) : good;
        if (!good) {
            return good;
        }
    }
    return Fine();
}

bool Has(const Request& request, const char* option) {
    return std::count(request.options.begin(), request.options.end(), option) != 0;
}

Check FinishBind(Request& request) {
    if (!request.type.empty() && request.type != "none") {
        return Refusal{"a bind mount has no type"};
    }
    for (const std::string& option : request.options) {
        if (!IsBindOption(option)) {
            return Refusal{"a bind mount cannot have the option " + Quote(option)};
        }
    }
    request.type = "none";
    return Fine();
}

Check FinishMount(Request& request) {
    const bool isPath = StartsWith(request.source, "/");
    if (Has(request, "bind")) {
        if (Check good = FinishBind(request); !good) {
            return good;
        }
    } else if (request.type == "none") {
        return Refusal{"the type 'none' is for bind mounts only"};
    } else if (request.type.empty()) {
        request.type = "auto";
    }
    if ((Has(request, "bind") || Has(request, "loop")) && !isPath) {
        return Refusal{"the source must be an absolute path"};
    }
    return Fine();
}

Check CheckUnmountAddition(const std::string& option) {
    return IsOneOf(option, {"force", "lazy", "detach-loop"}) ? Fine() : AddNothing(option);
}

}  // namespace

const OptionRow kNoTable{'n', "no-mtab", false, "", StoreNothing};
const OptionRow kNoHelper{'i', "internal-only", false, "", StoreNothing};
const OptionRow kNoCanonical{'c', "no-canonicalize", false, "", StoreNothing};

// A type that begins with "no" is a negation to mount(8). The fuse types run a program of the
// source's choice; those of the shares would take a password on the command line.
Check CheckType(const std::string& type) {
    if (!IsMadeOf(type, (std::string(kLower) + "_").c_str()) || type.size() > 32) {
        return Refusal{"the type is malformed"};
    }
    if (StartsWith(type, "fuse") || (StartsWith(type, "no") && type != "none") ||
        IsOneOf(type, {"cifs", "smb3", "smbfs"})) {
        return Refusal{"the type " + Quote(type) + " is not available"};
    }
    return Fine();
}

// mount(8) takes quotes and backslashes in options for its own: with one of them the caller could
// swallow the flags that are put behind.
Check CheckOption(const std::string& option) {
    const std::string key = OptionKey(option);
    if (option.empty()) {
        return Refusal{"an option is empty"};
    }
    if (!IsMadeOf(key, (std::string(kLower) + "_.-").c_str()) || key[0] == '-' || key[0] == '.') {
        return Refusal{"an option's name is malformed"};
    }
    if (option.find_first_of(",\"'\\") != std::string::npos || HasControl(option)) {
        return Refusal{"the value of the option " + Quote(key) + " is malformed"};
    }
    const bool bare = key.size() == option.size();
    if (StartsWith(key, "x-") || StartsWith(key, "pass") || IsOwnershipOption(key) ||
        IsOneOf(key, {"remount", "move", "rbind", "source", "helper", "uhelper", "shared", "slave",
                      "private", "unbindable", "rshared", "rslave", "rprivate", "runbindable"}) ||
        (!bare && IsOneOf(key, {"bind", "loop", "suid", "dev"}))) {
        return Refusal{"the option " + Quote(key) + " is not available"};
    }
    const std::string value = OptionValue(option);
    if (IsOneOf(key, {"lowerdir", "upperdir", "workdir"})) {
        return CheckOverlay(key, value);
    }
    if (Climbs(value)) {
        return Refusal{"the value of the option " + Quote(key) + " holds '..'"};
    }
    return Fine();
}

Grammar Unmounting(Operation operation) {
    return {operation,
            {kNoTable,
             kNoHelper,
             kNoCanonical,
             {'f', "force", false, "force", StoreFlag},
             {'l', "lazy", false, "lazy", StoreFlag},
             {'d', "detach-loop", false, "detach-loop", StoreFlag}},
            {{"a mount point", 1, 1, StoreTarget}},
            FinishNothing,
            CheckUnmountAddition};
}

Grammars MountGrammars() {
    return {{Operation::kMount,
             {kNoTable,
              kNoHelper,
              kNoCanonical,
              {'t', "types", true, nullptr, StoreType},
              {'o', "options", true, nullptr, StoreMountOptions},
              {'r', "read-only", false, "ro", StoreFlag},
              {'w', "read-write", false, "rw", StoreFlag},
              {0, "rw", false, "rw", StoreFlag},
              {'B', "bind", false, "bind", StoreFlag}},
             {{"a source", 1, 1, StoreSource}, {"a mount point", 1, 1, StoreTarget}},
             FinishMount,
             CheckOption},
            Unmounting(Operation::kUmount)};
}

}  // namespace agent
