// SPDX-License-Identifier: Apache-2.0
#include "Tools.h"

#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

namespace agent {

const char kToolPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";

const Tool* FindTool(const std::string& agent) {
    // systemctl: neither a pager nor a question may ever stand between the tool and its end.
    static const std::vector<Tool> tools = {
        {"sr_mount", "mount", {}},
        {"sr_umount", "umount", {}},
        {"sr_mount_cifs", "mount", {"-t", "cifs"}},
        {"sr_umount_cifs", "umount", {}},
        {"sr_mknod", "mknod", {}},
        {"sr_insmod", "insmod", {}},
        {"sr_rmmod", "rmmod", {}},
        {"sr_systemctl", "systemctl", {"--no-pager", "--no-ask-password"}},
    };
    for (const Tool& tool : tools) {
        if (agent == tool.agent) {
            return &tool;
        }
    }
    return nullptr;
}

std::string FindProgram(const std::string& program, const std::string& directories) {
    std::istringstream reader(directories);
    std::string directory;
    while (std::getline(reader, directory, ':')) {
        const std::string path = directory + "/" + program;
        struct stat status = {};
        if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return std::string();
}

}  // namespace agent
