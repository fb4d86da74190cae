// SPDX-License-Identifier: Apache-2.0
#include "Tools.h"

#include <sentrel/SR_Status.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

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
        if (!path.empty() && CheckTool(path, reason) != SR_OK) {
            warnings.push_back(reason);
        }
    }
    return tools;
}

int CheckTool(const std::string& path, std::string& reason) {
    struct stat found = {};
    if (path.empty() || path[0] != '/' || stat(path.c_str(), &found) != 0) {
        reason = path + ": the tool is not on this system";
        return SR_FEATURE_ISNT_IMPLEMENTED;
    }
    const bool owned = found.st_uid == 0 || found.st_uid == geteuid();
    if (!S_ISREG(found.st_mode) || !owned || (found.st_mode & (S_IWGRP | S_IWOTH)) != 0 ||
        access(path.c_str(), X_OK) != 0) {
        reason = path + ": the tool is not to be trusted: others may write it, or it is no program";
        return SR_FORK_FAILED;
    }
    return SR_OK;
}

}  // namespace agent
