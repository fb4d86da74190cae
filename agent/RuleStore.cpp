// SPDX-License-Identifier: Apache-2.0
#include "RuleStore.h"

#include <sys/stat.h>

#include "Child.h"
#include "Text.h"

namespace agent {

namespace {

std::string FindTool(const std::string& name, const std::vector<std::string>& directories) {
    for (const std::string& directory : directories) {
        std::string path = directory;
        path.append("/").append(name);
        struct stat found = {};
        if (stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode)) {
            return path;
        }
    }
    return "";
}

}  // namespace

Tools FindTools(const std::string& directories, std::vector<std::string>& warnings) {
    const std::vector<std::string> places = Split(directories, ':');
    Tools tools;
    const std::pair<const char*, std::string Tools::*> kNames[] = {
        {"mount", &Tools::mount},   {"umount", &Tools::umount}, {"mount.cifs", &Tools::mountCifs},
        {"insmod", &Tools::insmod}, {"rmmod", &Tools::rmmod},   {"systemctl", &Tools::systemctl}};
    for (const auto& entry : kNames) {
        std::string& path = tools.*entry.second;
        path = FindTool(entry.first, places);
        std::string reason;
        if (!path.empty() && CheckTool(path, reason) != kOk) {
            warnings.push_back(reason);
        }
    }
    return tools;
}

RuleStore::RuleStore(const std::vector<std::string>& ruleDirectories, uid_t ruleOwner,
                     const std::string& toolDirectories)
    : directories(ruleDirectories), owner(ruleOwner), toolPath(toolDirectories) {}

RuleSource RuleStore::Read() const {
    const Accounts database;
    const RecordedAccounts asked(database);
    RuleSource source;
    source.files = ReadRuleFiles(directories, owner);
    (void)ParseRuleFiles(source.files, asked);
    source.accounts = asked.GetTable();
    return source;
}

LoadResult RuleStore::Take(const RuleSource& source) {
    LoadResult result = ParseRuleFiles(source.files, TabledAccounts(source.accounts));
    if (!result.rules) {
        return result;
    }
    for (const std::string& warning : CheckRules(*result.rules)) {
        result.warnings.push_back(warning);
    }
    decider = std::make_unique<Decider>(FindTools(toolPath, result.warnings));
    set = result.rules;
    return result;
}

AccountQuestions RuleStore::QuestionsOf(const std::string& agent) const {
    return set ? agent::QuestionsOf(*set, agent) : AccountQuestions();
}

Decision RuleStore::Decide(const Caller& caller, const Request& request) const {
    if (!set) {
        return Decision();
    }
    return decider->Decide(*set, caller, request);
}

}  // namespace agent
