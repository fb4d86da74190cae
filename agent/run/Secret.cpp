// SPDX-License-Identifier: Apache-2.0
#include "Secret.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "Credentials.h"
#include "base/AsCaller.h"

namespace agent {

namespace {

const std::size_t kLongestSecret = 4096;  // fits into a pipe that nobody reads yet

// Before all other options, so that what is forced stays the last word; not where it is given.
void AddOption(std::vector<std::string>& arguments, const std::string& key,
               const std::string& value) {
    const auto end = std::find(arguments.begin(), arguments.end(), "--");
    auto list = std::find(arguments.begin(), end, "-o");
    if (value.empty()) {
        return;
    }
    if (list == end || list + 1 == end) {
        arguments.insert(arguments.begin() + 1, {"-o", key + "=" + value});
        return;
    }
    ++list;
    if (("," + *list).find("," + key + "=") == std::string::npos) {
        *list = key + "=" + value + "," + *list;
    }
}

// Opened as the caller, who names the path: root would read anything for it. And it must be the
// caller's own: what others let it read is not its secret to give away.
Result<std::string> ReadSecretFile(const std::string& path, const Caller& caller) {
    const Refusal refusal{"the file with the secret cannot be read as the caller's own",
                          SR_RULE_NO_FOUND};
    const OwnedFd file = OpenAsCaller(caller.uid, GroupOf(caller), caller.groups, [&path] {
        open_how how = {};
        // Not blocking: it may be a pipe by now.
        how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
        how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
        return OwnedFd(
            static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    });
    struct stat found = {};
    if (!file || fstat(file.Get(), &found) != 0 || !S_ISREG(found.st_mode) ||
        found.st_uid != caller.uid) {
        return refusal;
    }
    char content[kLargestCredentials + 1];  // one more than may be there
    const ssize_t count = read(file.Get(), content, sizeof content);
    if (count <= 0) {
        return refusal;
    }
    return std::string(content, static_cast<std::size_t>(count));
}

}  // namespace

Result<OwnedFd> OpenSecret(const Plan& plan, const Caller& caller,
                           std::vector<std::string>& arguments) {
    std::string text = plan.secret;
    if (!plan.secretFile.empty()) {
        const Result<std::string> content = ReadSecretFile(plan.secretFile, caller);
        if (!content) {
            return content.GetRefusal();
        }
        const Result<Credentials> credentials = ReadCredentials(*content);
        if (!credentials) {
            return credentials.GetRefusal();
        }
        AddOption(arguments, "user", credentials->user);
        AddOption(arguments, "domain", credentials->domain);
        text = credentials->password;
    }
    if (text.empty()) {
        return OwnedFd();
    }
    Result<Pipe> pipe = OpenPipe();
    // Written before there is a reader, so it must fit: this would wait for itself.
    if (text.size() > kLongestSecret || !pipe ||
        write(pipe->writer.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        return Refusal{"the secret cannot be handed on", SR_FORK_FAILED};
    }
    return std::move(pipe->reader);
}

}  // namespace agent
