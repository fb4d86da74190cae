// SPDX-License-Identifier: Apache-2.0
// A module has one name in a request, the kernel's, so that a rule about unloading means the same
// module as one about loading, however its file is called.
#include "Modules.h"

#include <algorithm>

#include "Field.h"
#include "base/Text.h"

namespace agent {

namespace {

const std::size_t kLongestModule = 55;

std::string ModuleName(std::string name) {
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

Check StoreModule(Request& request, const std::string& value) {
    if (!IsMadeOf(value, (std::string(kAlnum) + "_-").c_str()) || value.size() > kLongestModule) {
        return Refusal{"the module's name is malformed"};
    }
    return StoreOnce(request.module, ModuleName(value), "the module");
}

Check StoreModulePath(Request& request, const std::string& value) {
    if (Check stored = StorePath(request, value); !stored) {
        return stored;
    }
    const std::string file = request.path.substr(request.path.rfind('/') + 1);
    const std::size_t dot = file.find('.');
    const std::string suffix = dot == std::string::npos ? "" : file.substr(dot);
    if (!IsOneOf(suffix, {".ko", ".ko.gz", ".ko.xz", ".ko.zst"})) {
        return Refusal{"the module's file does not end in .ko"};
    }
    return StoreModule(request, file.substr(0, dot));
}

// A blank or a quote would begin another parameter in the kernel's own reading of the line.
Check StoreParameter(Request& request, const std::string& value) {
    const std::string key = OptionKey(value);
    const std::string text = OptionValue(value);
    const std::string allowed = std::string(kAlnum) + "_.,:/+@-";
    if (!IsMadeOf(key, (std::string(kAlnum) + "_").c_str()) ||
        !(text.empty() || IsMadeOf(text, allowed.c_str()))) {
        return Refusal{"a module parameter is malformed"};
    }
    request.parameters.push_back(value);
    return Fine();
}

}  // namespace

Grammars ModuleGrammars() {
    return {
        {Operation::kInsmod,
         {},
         {{"a module's file", 1, 1, StoreModulePath}, {"a parameter", 0, 60, StoreParameter}},
         FinishNothing,
         AddNothing},
        {Operation::kRmmod,
         {},
         {{"a module's name", 1, 1, StoreModule}},
         FinishNothing,
         AddNothing},
    };
}

}  // namespace agent
