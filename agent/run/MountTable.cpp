// SPDX-License-Identifier: Apache-2.0
//
// Read by hand and not by libmount, deliberately. That library passes over a line that it does not
// understand and says that all went well; here what is not in the list may be mounted all the same,
// so half a list must be no list. And it would bring three more libraries (of block devices, of
// SELinux, of regular expressions) into the agent itself, which reads this list too, for six fields
// of a line; the first of them opens files of its own before main() begins.
#include "MountTable.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/Descriptors.h"
#include "base/Text.h"

namespace agent {

namespace {

// The kernel writes blanks, tabs, newlines and backslashes as \ooo. None: it is not its writing.
std::optional<std::string> Unescape(const std::string& text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            plain += text[i];
            continue;
        }
        const auto letter = ToNumber<unsigned char>(text.substr(i + 1, 3), 8);
        if (!letter || i + 3 >= text.size()) {
            return std::nullopt;
        }
        plain += static_cast<char>(*letter);
        i += 3;
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
    const std::vector<std::string> fields = Split(line, ' ');
    if (fields.size() < 6) {
        return std::nullopt;
    }
    const std::string& device = fields[2];
    const std::size_t colon = std::min(device.find(':'), device.size());
    const auto id = ToNumber<std::uint64_t>(fields[0]);
    const auto parent = ToNumber<std::uint64_t>(fields[1]);
    const auto majorNumber = ToNumber<unsigned>(device.substr(0, colon));
    const auto minorNumber = ToNumber<unsigned>(device.substr(std::min(colon + 1, device.size())));
    const auto point = Unescape(fields[4]);
    if (!id || !parent || !majorNumber || !minorNumber || !point) {
        return std::nullopt;
    }
    MountEntry entry;
    entry.id = *id;
    entry.parent = *parent;
    entry.majorNumber = *majorNumber;
    entry.minorNumber = *minorNumber;
    entry.point = *point;
    entry.options = fields[5];
    return entry;
}

}  // namespace

Result<std::vector<MountEntry> > ReadMounts() {
    const Result<std::string> text = ReadTable();
    if (!text) {
        return text.GetRefusal();
    }
    std::vector<MountEntry> mounts;
    for (const std::string& line : Split(*text, '\n')) {
        if (line.empty()) {
            continue;  // behind the last one
        }
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
