// SPDX-License-Identifier: Apache-2.0
//
// Finding the files and making sure that only their owner can have written them.
#include "RuleFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "base/Text.h"
#include "decide/RuleReader.h"

namespace agent {

namespace {

const off_t kLargestFile = 262144;

class Descriptor {
public:
    explicit Descriptor(int number) : fd(number) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return fd; }

private:
    int fd;
};

std::string Reason() {
    return std::strerror(errno);
}

// Why what is open here cannot be trusted; empty when it can.
std::string Distrust(int fd, mode_t type, uid_t owner) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return "cannot be examined: " + Reason();
    }
    if ((status.st_mode & S_IFMT) != type) {
        return type == S_IFDIR ? "is not a directory" : "is not an ordinary file";
    }
    if (status.st_uid != owner) {
        return "does not belong to user " + std::to_string(owner);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "can be written by others";
    }
    if (type == S_IFREG && status.st_size > kLargestFile) {
        return "is larger than 256 KiB";
    }
    return "";
}

// The file's text; false fills `why`.
bool ReadAll(int fd, std::string& text, std::string& why) {
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count == 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            why = "cannot be read: " + Reason();
            return false;
        }
        text.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
        if (text.size() > static_cast<std::size_t>(kLargestFile)) {
            why = "is larger than 256 KiB";
            return false;
        }
    }
}

bool IsRuleFile(const std::string& name) {
    const std::string suffix = ".toml";
    return name.size() > suffix.size() && name[0] != '.' &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The names of the directory's rule files, each with its directory, put over those already found.
void ListFiles(const std::string& directory, uid_t owner, std::map<std::string, std::string>& files,
               std::vector<std::string>& errors) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno != ENOENT) {
            errors.push_back(directory + ":0: cannot be opened: " + Reason());
        }
        return;
    }
    const std::string distrust = Distrust(fd, S_IFDIR, owner);
    DIR* stream = fdopendir(fd);
    if (!distrust.empty() || stream == nullptr) {
        errors.push_back(directory + ":0: " + (distrust.empty() ? Reason() : distrust));
        stream == nullptr ? close(fd) : closedir(stream);
        return;
    }
    errno = 0;
    while (const struct dirent* entry = readdir(stream)) {
        if (IsRuleFile(entry->d_name)) {
            files[entry->d_name] = directory;
        }
    }
    if (errno != 0) {
        errors.push_back(directory + ":0: cannot be listed: " + Reason());
    }
    closedir(stream);
}

bool ReadFile(const std::string& path, uid_t owner, std::string& text, std::string& why) {
    // O_NONBLOCK: a pipe must not hold up the load; it is refused below.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (file.Get() < 0) {
        why = errno == ELOOP ? "is a symbolic link" : "cannot be opened: " + Reason();
        return false;
    }
    why = Distrust(file.Get(), S_IFREG, owner);
    return why.empty() && ReadAll(file.Get(), text, why);
}

}  // namespace

RuleFiles ReadRuleFiles(const std::vector<std::string>& directories, uid_t owner) {
    RuleFiles read;
    std::map<std::string, std::string> names;
    for (const std::string& directory : directories) {
        ListFiles(directory, owner, names, read.errors);
    }
    for (const auto& [name, directory] : names) {
        RuleFiles::File file;
        file.path = directory;
        file.path.append("/").append(name);
        if (!ReadFile(file.path, owner, file.text, file.error)) {
            file.text.clear();
        }
        read.files.push_back(std::move(file));
    }
    return read;
}

LoadResult ParseRuleFiles(const RuleFiles& files, const Names& accounts) {
    LoadResult result;
    result.errors = files.errors;
    std::vector<Rule> rules;
    for (const RuleFiles::File& file : files.files) {
        if (file.error.empty()) {
            ReadRules(file.text, file.path, accounts, rules, result);
        } else {
            result.errors.push_back(file.path + ":0: " + file.error);
        }
    }
    Finish(std::move(rules), result);
    return result;
}

LoadResult LoadRules(const std::vector<std::string>& directories, uid_t owner,
                     const Names& accounts) {
    return ParseRuleFiles(ReadRuleFiles(directories, owner), accounts);
}

}  // namespace agent
