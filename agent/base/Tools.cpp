// SPDX-License-Identifier: Apache-2.0
#include "Tools.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Text.h"

namespace agent {

namespace {

// "mount.cifs" of "/usr/sbin/mount.cifs".
std::string NameOfTool(Operation operation) {
    const std::string path = RowOf(operation).tool;
    return path.substr(path.rfind('/') + 1);
}

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

Tools::Tools() {
    for (const OperationRow& row : OperationRows()) {
        paths[NameOfTool(row.operation)] = row.tool;
    }
}

const std::string& Tools::PathFor(Operation operation) const {
    return paths.at(NameOfTool(operation));
}

Tools FindTools(const std::string& directories, std::vector<std::string>& warnings) {
    const std::vector<std::string> places = Split(directories, ':');
    Tools tools;
    for (auto& [name, path] : tools.paths) {
        if (path == name) {
            continue;  // the agent's own work
        }
        path = FindTool(name, places);
        if (path.empty()) {
            continue;
        }
        if (const Check trusted = CheckTool(path); !trusted) {
            warnings.push_back(trusted.Reason());
        }
    }
    return tools;
}

Check CheckTool(const std::string& path) {
    struct stat found = {};
    if (path.empty() || path[0] != '/' || stat(path.c_str(), &found) != 0) {
        return Refusal{path + ": the tool is not on this system", SR_FEATURE_ISNT_IMPLEMENTED};
    }
    const bool owned = found.st_uid == 0 || found.st_uid == geteuid();
    if (!S_ISREG(found.st_mode) || !owned || (found.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        access(path.c_str(), X_OK) != 0) {
        return Refusal{
            path + ": the tool is not to be trusted: others may write it, or it is no program",
            SR_FORK_FAILED};
    }
    return Fine();
}

}  // namespace agent
