// SPDX-License-Identifier: Apache-2.0
// Finding the files and making sure that only their owner can have written them. What is examined
// is what is open, never a name a second time.
#include "RuleFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "base/Descriptors.h"
#include "base/Result.h"
#include "base/Text.h"
#include "decide/RuleReader.h"

namespace agent {

namespace {

const off_t kLargestFile = 262144;

std::string Errno() {
    return std::strerror(errno);
}

// Whether what is open here can be trusted.
Check CheckTrust(int fd, mode_t type, uid_t owner) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return Refusal{"cannot be examined: " + Errno()};
    }
    if ((status.st_mode & S_IFMT) != type) {
        return Refusal{type == S_IFDIR ? "is not a directory" : "is not an ordinary file"};
    }
    if (status.st_uid != owner) {
        return Refusal{"does not belong to user " + std::to_string(owner)};
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return Refusal{"can be written by others"};
    }
    if (type == S_IFREG && status.st_size > kLargestFile) {
        return Refusal{"is larger than 256 KiB"};
    }
    return Fine();
}

Result<std::string> ReadAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count == 0) {
            return text;
        }
        if (count < 0 && errno != EINTR) {
            return Refusal{"cannot be read: " + Errno()};
        }
        text.append(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
        if (text.size() > static_cast<std::size_t>(kLargestFile)) {
            return Refusal{"is larger than 256 KiB"};
        }
    }
}

bool IsRuleFile(const std::string& name) {
    return name[0] != '.' && EndsWith(name, ".toml");
}

// The names of the directory's rule files, each with its directory, put over those already found.
void ListFiles(const std::string& directory, uid_t owner, std::map<std::string, std::string>& files,
               std::vector<std::string>& errors) {
    OwnedFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd) {
        if (errno != ENOENT) {
            errors.push_back(directory + ": cannot be opened: " + Errno());
        }
        return;
    }
    if (const Check trusted = CheckTrust(fd.Get(), S_IFDIR, owner); !trusted) {
        errors.push_back(directory + ": " + trusted.Reason());
        return;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(fd.Get()), closedir);
    if (!stream) {
        errors.push_back(directory + ": " + Errno());
        return;
    }
    (void)fd.Release();  // the stream's
    errno = 0;
    while (const struct dirent* entry = readdir(stream.get())) {
        if (IsRuleFile(entry->d_name)) {
            files[entry->d_name] = directory;
        }
    }
    if (errno != 0) {
        errors.push_back(directory + ": cannot be listed: " + Errno());
    }
}

Result<std::string> ReadFile(const std::string& path, uid_t owner) {
    // O_NONBLOCK: a pipe must not hold up the load; it is refused below.
    const OwnedFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        return Refusal{errno == ELOOP ? "is a symbolic link" : "cannot be opened: " + Errno()};
    }
    const Check trusted = CheckTrust(file.Get(), S_IFREG, owner);
    return trusted ? ReadAll(file.Get()) : trusted.GetRefusal();
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
        const Result<std::string> text = ReadFile(file.path, owner);
        (text ? file.text : file.error) = text ? *text : text.Reason();
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
            result.errors.push_back(file.path + ": " + file.error);
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
