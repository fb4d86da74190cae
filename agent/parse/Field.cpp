// SPDX-License-Identifier: Apache-2.0
// A new check that more than one family needs goes here; one family's own go into its file.
#include "Field.h"

#include <algorithm>

#include "base/Text.h"

namespace agent {

namespace {
const std::size_t kMostOptions = 64;
}  // namespace

bool IsOneOf(const std::string& text, std::initializer_list<const char*> list) {
    return std::any_of(list.begin(), list.end(), [&](const char* one) { return text == one; });
}

Result<std::string> CleanPath(const std::string& text) {
    if (text.empty() || text[0] != '/' || StartsWith(text, "//")) {
        return Refusal{"a path is not absolute"};
    }
    if (text.size() > kLongestPath) {
        return Refusal{"a path is too long"};
    }
    const std::vector<std::string> parts = Split(text, '/');
    if (const Check good = CheckComponents(parts); !good) {
        return good.GetRefusal();
    }
    std::string clean;
    for (const std::string& part : parts) {
        if (!part.empty()) {
            clean += "/" + part;
        }
    }
    if (clean.empty()) {
        return Refusal{"the root directory cannot be named here"};
    }
    return clean;
}

Check CheckComponents(const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        if (part == "." || part == "..") {
            return Refusal{"a path holds '.' or '..'"};
        }
        if (part.size() > kLongestName) {
            return Refusal{"a part of a path is too long"};
        }
    }
    return Fine();
}

std::string OptionKey(const std::string& option) {
    return option.substr(0, option.find('='));
}

std::string OptionValue(const std::string& option) {
    const std::size_t equals = option.find('=');
    return equals == std::string::npos ? "" : option.substr(equals + 1);
}

Check StoreOnce(std::string& field, const std::string& value, const char* what) {
    if (!field.empty()) {
        return Refusal{std::string(what) + " is given twice"};
    }
    field = value;
    return Fine();
}

Check StorePath(Request& request, const std::string& value) {
    const Result<std::string> path = CleanPath(value);
    return path ? StoreOnce(request.path, *path, "the path") : path.GetRefusal();
}

Check StoreTarget(Request& request, const std::string& value) {
    const Result<std::string> path = CleanPath(value);
    return path ? StoreOnce(request.target, *path, "the mount point") : path.GetRefusal();
}

Check AddOption(Request& request, const std::string& option) {
    if (request.options.size() >= kMostOptions) {
        return Refusal{"there are too many options"};
    }
    request.options.push_back(option);
    return Fine();
}

Check StoreNothing(Request& /*request*/, const std::string& /*value*/) {
    return Fine();
}

Check StoreFlag(Request& request, const std::string& value) {
    return AddOption(request, value);
}

Check FinishNothing(Request& /*request*/) {
    return Fine();
}

Check AddNothing(const std::string& /*option*/) {
    return Refusal{"this option cannot be added always"};
}

}  // namespace agent
