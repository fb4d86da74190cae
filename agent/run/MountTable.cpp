// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <sstream>

#include "base/Descriptors.h"

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

// A stream would take an error for the end.
bool ReadTable(std::string& text) {
    const OwnedFd table(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!table) {
        return false;
    }
    for (;;) {
        char piece[16384];
        const ssize_t count = read(table.Get(), piece, sizeof piece);
        if (count > 0) {
            text.append(piece, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return count == 0;
        }
    }
}

}  // namespace

bool ReadMounts(std::vector<MountEntry>& mounts) {
    std::string text;
    if (!ReadTable(text)) {
        return false;
    }
    std::istringstream table(text);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        MountEntry entry;
        char colon = ':';
        std::string root;
        fields >> entry.id >> entry.parent >> entry.majorNumber >> colon >> entry.minorNumber >>
            root >> entry.point >> entry.options;
        if (!fields) {
            return false;
        }
        entry.point = Unescape(entry.point);
        mounts.push_back(entry);
    }
    return true;
}

const MountEntry* FindMount(const std::vector<MountEntry>& mounts, std::uint64_t id) {
    const auto found = std::find_if(mounts.begin(), mounts.end(),
                                    [id](const MountEntry& entry) { return entry.id == id; });
    return found == mounts.end() ? nullptr : &*found;
}

std::string MissingFlag(const MountEntry& mount, const std::vector<std::string>& flags) {
    const std::string options = "," + mount.options + ",";
    const auto missing = std::find_if(flags.begin(), flags.end(), [&](const std::string& flag) {
        return options.find("," + flag + ",") == std::string::npos;
    });
    return missing == flags.end() ? "" : *missing;
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
