// SPDX-License-Identifier: Apache-2.0
#include "LoopDevice.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>

#include "base/Text.h"

namespace agent {

namespace {

struct Range {
    std::uint64_t offset = 0;
    std::uint64_t size = 0;  // 0: to the end
    bool readOnly = false;
};

// As mount(8) reads it: "4096", "4K", "4KiB".
std::optional<std::uint64_t> ReadSize(const std::string& text) {
    const std::size_t end = std::min(text.find_first_not_of(kDigits), text.size());
    const std::string unit = text.substr(end);
    const std::size_t power = unit.empty() ? 0 : std::string("KMG").find(unit[0]);
    if (end == 0 || end > 15 || (!unit.empty() && unit.size() != 1 && unit.substr(1) != "iB") ||
        (!unit.empty() && power == std::string::npos)) {
        return std::nullopt;
    }
    const std::uint64_t size = ToNumber<std::uint64_t>(text.substr(0, end)).value_or(0);
    const unsigned shift = unit.empty() ? 0 : 10 * (static_cast<unsigned>(power) + 1);
    // Half of the range: an offset and a size are added up.
    if (size > std::numeric_limits<std::uint64_t>::max() >> (shift + 1)) {
        return std::nullopt;
    }
    return size << shift;
}

// Takes the options that are the loop device's out of mount(8)'s list. None: one is malformed.
std::optional<Range> TakeOptions(std::vector<std::string>& words) {
    Range range;
    const auto end = std::find(words.begin(), words.end(), "--");
    const auto option = std::find(words.begin(), end, "-o");
    if (option == end) {
        return range;
    }
    std::vector<std::string> rest;
    for (const std::string& one : Split(*(option + 1), ',')) {
        if (StartsWith(one, "offset=") || StartsWith(one, "sizelimit=")) {
            const std::optional<std::uint64_t> size = ReadSize(one.substr(one.find('=') + 1));
            if (!size) {
                return std::nullopt;
            }
            (one[0] == 'o' ? range.offset : range.size) = *size;
        } else if (one != "loop") {
            rest.push_back(one);
            range.readOnly = one == "ro" || (range.readOnly && one != "rw");
        }
    }
    if (rest.empty()) {
        words.erase(option, option + 2);
    } else {
        *(option + 1) = Join(rest, ",");
    }
    return range;
}

struct LoopDevice {
    OwnedFd fd;
    std::string name;
};

std::string NameOf(long number) {
    return "/dev/loop" + std::to_string(number);
}

// A loop device's state; false when it has no image.
bool ReadState(const OwnedFd& device, loop_info64& state) {
    return device && ioctl(device.Get(), LOOP_GET_STATUS64, &state) == 0;
}

bool Overlap(const Range& range, const loop_info64& state) {
    const auto end = [](std::uint64_t offset, std::uint64_t size) {
        return size == 0 ? std::numeric_limits<std::uint64_t>::max() : offset + size;
    };
    return range.offset < end(state.lo_offset, state.lo_sizelimit) &&
           state.lo_offset < end(range.offset, range.size);
}

// The device that the image has already; without a descriptor when it has none. One image under two
// devices would be two file systems that know nothing of each other: none at all when it is in use
// in another manner.
std::optional<LoopDevice> FindOther(const struct stat& image, const Range& range) {
    LoopDevice found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/block", ignored)) {
        const std::string candidate = "/dev/" + entry.path().filename().string();
        if (!StartsWith(candidate, "/dev/loop")) {
            continue;
        }
        loop_info64 state = {};
        OwnedFd other(open(candidate.c_str(), O_RDONLY | O_CLOEXEC));
        if (!ReadState(other, state) || state.lo_device != image.st_dev ||
            state.lo_inode != image.st_ino || !Overlap(range, state)) {
            continue;
        }
        const bool readOnly = (state.lo_flags & LO_FLAGS_READ_ONLY) != 0;
        if (state.lo_offset != range.offset || state.lo_sizelimit != range.size ||
            (readOnly && !range.readOnly)) {
            return std::nullopt;
        }
        found.fd = std::move(other);
        found.name = candidate;
    }
    return found;
}

// None: errno tells.
std::optional<LoopDevice> Configure(const OwnedFd& file, const Range& range,
                                    const std::string& shownAs) {
    const OwnedFd control(open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    loop_config config = {};
    config.fd = static_cast<unsigned>(file.Get());
    config.info.lo_offset = range.offset;
    config.info.lo_sizelimit = range.size;
    // Its last user takes it away: nobody is left who would remember to.
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (range.readOnly) {
        config.info.lo_flags |= LO_FLAGS_READ_ONLY;
    }
    (void)shownAs.copy(reinterpret_cast<char*>(config.info.lo_file_name), LO_NAME_SIZE - 1);
    // Between the question for a free number and its use another may have taken it: then the next.
    // Not for ever, since somebody could be taking them on purpose.
    for (int tries = 0; control && tries < 16; ++tries) {
        const long number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
        if (number < 0) {
            return std::nullopt;
        }
        LoopDevice device;
        device.name = NameOf(number);
        device.fd.Reset(
            open(device.name.c_str(), (range.readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
        if (device.fd && ioctl(device.fd.Get(), LOOP_CONFIGURE, &config) == 0) {
            return device;
        }
        if (errno != EBUSY) {
            return std::nullopt;  // else another took it first
        }
    }
    return std::nullopt;
}

}  // namespace

bool NeedsLoop(const PinnedPath& image, const std::vector<std::string>& words) {
    const auto end = std::find(words.begin(), words.end(), "--");
    const auto option = std::find(words.begin(), end, "-o");
    if (image.regularFile || option == end) {
        return image.regularFile;
    }
    const std::vector<std::string> options = Split(*(option + 1), ',');
    return std::find(options.begin(), options.end(), "loop") != options.end();
}

Result<OwnedFd> AttachLoop(const PinnedPath& image, std::vector<std::string>& words) {
    const std::string failure = "failed to setup loop device for " + image.pin.path;
    if (!image.regularFile && !image.blockDevice) {
        return Refusal{failure + ": it is neither a file nor a block device"};
    }
    std::optional<Range> range = TakeOptions(words);
    if (!range) {
        return Refusal{failure + ": its offset or size is malformed"};
    }
    // Through the pinned descriptor, not by the name: that may be another file's by now.
    const std::string link = "/proc/self/fd/" + std::to_string(image.object.Get());
    OwnedFd file(open(link.c_str(), (range->readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC));
    if (!file && errno == EROFS) {
        range->readOnly = true;
        file.Reset(open(link.c_str(), O_RDONLY | O_CLOEXEC));
    }
    struct stat found = {};
    if (!file || fstat(file.Get(), &found) != 0) {
        return Refusal{failure + ": " + std::strerror(errno)};
    }
    std::optional<LoopDevice> device = FindOther(found, *range);
    if (!device) {
        return Refusal{"the image is in use by a loop device already: " + image.pin.path};
    }
    if (!device->fd) {
        device = Configure(file, *range, image.pin.path);
    }
    if (!device) {
        return Refusal{failure + ": " + std::strerror(errno)};
    }
    // Of "-- IMAGE MOUNTPOINT", which Plan::argv ends with.
    words[words.size() - 2] = device->name;
    return std::move(device->fd);
}

}  // namespace agent
