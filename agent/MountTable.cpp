// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace agent {

namespace {

// The kernel writes blanks, tabs, newlines and backslashes as \ooo.
std::string Unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            plain += static_cast<char>(((text[i + 1] - '0') << 6) | ((text[i + 2] - '0') << 3) |
                                       (text[i + 3] - '0'));
            i += 3;
        } else {
            plain += text[i];
        }
    }
    return plain;
}

}  // namespace

std::vector<MountEntry> ReadMounts() {
    std::vector<MountEntry> mounts;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        MountEntry entry;
        char colon = ':';
        std::string root;
        fields >> entry.id >> entry.parent >> entry.majorNumber >> colon >> entry.minorNumber >>
            root >> entry.point >> entry.options;
        if (fields) {
            entry.point = Unescape(entry.point);
            mounts.push_back(entry);
        }
    }
    return mounts;
}

bool MountId(int fd, std::uint64_t& id) {
    struct statx found = {};
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &found) != 0 ||
        (found.stx_mask & STATX_MNT_ID) == 0) {
        return false;
    }
    id = found.stx_mnt_id;
    return true;
}

}  // namespace agent
