// SPDX-License-Identifier: Apache-2.0
// What the fields of several families have in common: paths, options, a value that is given once.
// Pure functions. A reason never repeats a secret.
#ifndef SENTREL_AGENT_FIELD_H
#define SENTREL_AGENT_FIELD_H

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "Parse.h"
#include "base/Result.h"

namespace agent {

constexpr std::size_t kLongestPath = 4095;
constexpr std::size_t kLongestName = 255;

bool IsOneOf(const std::string& text, std::initializer_list<const char*> list);

// The path without doubled and trailing slashes; refused unless it is absolute and without "." and
// "..".
Result<std::string> CleanPath(const std::string& text);
// No "." or "..", no part that is longer than a name can be.
Check CheckComponents(const std::vector<std::string>& parts);

// "uid" of "uid=5".
std::string OptionKey(const std::string& option);
// What stands behind the key's '='; empty when nothing does.
std::string OptionValue(const std::string& option);

// Refused when the field has a value already; `what` names it.
Check StoreOnce(std::string& field, const std::string& value, const char* what);
Check StorePath(Request& request, const std::string& value);
Check StoreTarget(Request& request, const std::string& value);

Check AddOption(Request& request, const std::string& option);
// For options that mean nothing here, and for those that are a word of their own.
Check StoreNothing(Request& request, const std::string& value);
Check StoreFlag(Request& request, const std::string& value);

Check FinishNothing(Request& request);
// For operations whose rules add no options.
Check AddNothing(const std::string& option);

}  // namespace agent

#endif
