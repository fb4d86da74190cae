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
Result<std::string> ReadTable() {
    const Refusal refusal{"the kernel's list of mounts cannot be read"};
    const OwnedFd table(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    if (!table) {
        return refusal;
    }
    std::string text;
    for (;;) {
        char piece[16384];
        const ssize_t count = read(table.Get(), piece, sizeof piece);
        if (count > 0) {
            text.append(piece, static_cast<std::size_t>(count));
        } else if (count == 0) {
            return text;
        } else if (errno != EINTR) {
            return refusal;
        }
    }
}

// "36 35 98:0 /root /point nosuid,nodev ..."; what follows is of the file system.
std::optional<MountEntry> ReadLine(const std::string& line) {
    std::istringstream fields(line);
    MountEntry entry;
    char colon = ':';
    std::string root;
    fields >> entry.id >> entry.parent >> entry.majorNumber >> colon >> entry.minorNumber >> root >>
        entry.point >> entry.options;
    if (!fields) {
        return std::nullopt;
    }
    entry.point = Unescape(entry.point);
    return entry;
}

}  // namespace

Result<std::vector<MountEntry> > ReadMounts() {
    const Result<std::string> text = ReadTable();
    if (!text) {
        return text.GetRefusal();
    }
    std::vector<MountEntry> mounts;
    std::istringstream table(*text);
    for (std::string line; std::getline(table, line);) {
        const std::optional<MountEntry> entry = ReadLine(line);
        if (!entry) {
            return Refusal{"the kernel's list of mounts is not understood"};
        }
        mounts.push_back(*entry);
    }
    return mounts;
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

std::optional<std::uint64_t> MountId(int fd) {
    struct statx found = {};
    if (statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_MNT_ID, &found) != 0 ||
        (found.stx_mask & STATX_MNT_ID) == 0) {
        return std::nullopt;
    }
    return found.stx_mnt_id;
}

}  // namespace agent
