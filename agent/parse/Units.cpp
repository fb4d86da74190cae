// SPDX-License-Identifier: Apache-2.0
// A verb is one of a closed list: of those left out, some end the system, some run an editor, some
// take files. A unit is one unit by its full name.
#include "Units.h"

#include "Field.h"
#include "base/Text.h"

namespace agent {

namespace {

Check StoreVerb(Request& request, const std::string& value) {
    if (!IsVerb(value)) {
        return Refusal{"the verb " + Quote(value) + " is not available"};
    }
    return StoreOnce(request.verb, value, "the verb");
}

bool HasUnitSuffix(const std::string& name) {
    const std::size_t dot = name.rfind('.');
    return dot != std::string::npos && dot > 0 &&
           IsOneOf(name.substr(dot + 1), {"service", "socket", "target", "timer", "path", "mount",
                                          "automount", "swap", "slice", "scope", "device"});
}

Check StoreUnit(Request& request, const std::string& value) {
    const std::string unit = HasUnitSuffix(value) ? value : value + ".service";
    Check good = CheckUnit(unit);
    if (good) {
        request.units.push_back(unit);
    }
    return good;
}

Check StoreProperty(Request& request, const std::string& value) {
    for (const std::string& name : Split(value, ',')) {
        if (!IsMadeOf(name, kAlnum) || name.size() > kLongestName) {
            return Refusal{"a property's name is malformed"};
        }
        if (Check added = AddOption(request, "property=" + name); !added) {
            return added;
        }
    }
    return Fine();
}

Check CheckUnitAddition(const std::string& option) {
    return IsOneOf(option, {"quiet", "no-block"}) ? Fine() : AddNothing(option);
}

}  // namespace

// No "/" (a path would be linked in) and no "*" or "[" (systemctl expands them itself).
Check CheckUnit(const std::string& unit) {
    const bool plain = IsMadeOf(unit, (std::string(kAlnum) + ":_.\\@-").c_str());
    if (!plain || std::string(kAlnum).find(unit[0]) == std::string::npos ||
        unit.size() > kLongestName || !HasUnitSuffix(unit)) {
        return Refusal{"a unit's name is malformed"};
    }
    return Fine();
}

bool IsVerb(const std::string& verb) {
    return IsOneOf(verb, {"start", "stop", "restart", "try-restart", "reload", "reload-or-restart",
                          "try-reload-or-restart", "status", "show", "is-active", "is-failed",
                          "is-enabled", "enable", "disable", "mask", "unmask", "reset-failed"});
}

Grammars UnitGrammars() {
    return {{Operation::kSystemctl,
             {{0, "no-pager", false, "", StoreNothing},
              {0, "no-ask-password", false, "", StoreNothing},
              {'l', "full", false, "", StoreNothing},
              {'q', "quiet", false, "quiet", StoreFlag},
              {0, "no-block", false, "no-block", StoreFlag},
              {0, "now", false, "now", StoreFlag},
              {0, "value", false, "value", StoreFlag},
              {'p', "property", true, nullptr, StoreProperty}},
             {{"a verb", 1, 1, StoreVerb}, {"a unit", 1, 16, StoreUnit}},
             FinishNothing,
             CheckUnitAddition}};
}

}  // namespace agent
