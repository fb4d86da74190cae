// SPDX-License-Identifier: Apache-2.0
#include "Operations.h"

#include <sentrel/SR_API.h>

namespace cli {

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"mount", "sr_mount", "[OPTION]... [SOURCE] TARGET", "mount(8)",
         "-t vfat -o ro /dev/sda1 /media/usb", SR_Mount},
        {"umount", "sr_umount", "[OPTION]... TARGET", "umount(8)", "/media/usb", SR_Umount},
        {"mount-cifs", "sr_mount_cifs", "[OPTION]... //HOST/SHARE TARGET", "mount.cifs(8)",
         "-o credentials=/home/player/nas //nas/music /media/music", SR_Mount_Cifs},
        {"umount-cifs", "sr_umount_cifs", "[OPTION]... TARGET", "umount(8)", "/media/music",
         SR_Umount_Cifs},
        {"mknod", "sr_mknod", "[OPTION]... PATH TYPE [MAJOR MINOR]", "mknod(1)",
         "-m 0640 /dev/player0 c 240 2", SR_Mknod},
        {"insmod", "sr_insmod", "FILE [PARAMETER=VALUE]...", "insmod(8)",
         "/lib/modules/extra/player.ko index=1", SR_Insmod},
        {"rmmod", "sr_rmmod", "[OPTION]... MODULE", "rmmod(8)", "player", SR_Rmmod},
        {"systemctl", "sr_systemctl", "[OPTION]... VERB [UNIT]...", "systemctl(1)",
         "--no-block restart player.service", SR_Systemctl},
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
