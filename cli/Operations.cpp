// SPDX-License-Identifier: Apache-2.0
#include "Operations.h"

#include <sentrel/SR_API.h>

namespace cli {

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"mount", "sr_mount", "[OPTION]... [SOURCE] TARGET", SR_Mount},
        {"umount", "sr_umount", "[OPTION]... TARGET", SR_Umount},
        {"mount-cifs", "sr_mount_cifs", "[OPTION]... //HOST/SHARE TARGET", SR_Mount_Cifs},
        {"umount-cifs", "sr_umount_cifs", "[OPTION]... TARGET", SR_Umount_Cifs},
        {"mknod", "sr_mknod", "[OPTION]... PATH TYPE [MAJOR MINOR]", SR_Mknod},
        {"insmod", "sr_insmod", "FILE [PARAMETER=VALUE]...", SR_Insmod},
        {"rmmod", "sr_rmmod", "[OPTION]... MODULE", SR_Rmmod},
        {"systemctl", "sr_systemctl", "[OPTION]... VERB [UNIT]...", SR_Systemctl},
    };
    return operations;
}

const Operation* FindOperation(const std::string& name) {
    for (const Operation& operation : Operations()) {
        if (name == operation.name) {
            return &operation;
        }
    }
    return nullptr;
}

}  // namespace cli
