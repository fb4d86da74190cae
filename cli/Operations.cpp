// SPDX-License-Identifier: Apache-2.0
#include "Operations.h"

#include <fcntl.h>
#include <sentrel/SR_API.h>

#include <cstdio>

namespace cli {

namespace {

struct Meaning {
    int status;
    const char* text;
    const char* advice;
};

const Meaning kMeanings[] = {
    {SR_OK, "the tool ran", "see its own exit code"},
    {SR_FAIL, "the agent refused or failed for a reason of its own",
     "see the reason on standard output and the agent's log"},
    {SR_INVALID_REGEX, "the rule that would decide holds a pattern that is not valid",
     "ask the administrator to mend it"},
    {SR_COMM_OK, "inside the library: the exchange succeeded", "never reaches a caller"},
    {SR_COMM_SERVICE_EXISTS, "not used at present", "none"},
    {SR_COMM_NO_SERVICE, "nobody owns the agent's name on the bus", "start sentrel-agent"},
    {SR_COMM_FAILED, "the exchange with the agent failed",
     "check that the bus runs and lets you send to the agent; --trace shows the bus's own words"},
    {SR_RULE_NO_FOUND, "no rule allows this, or one forbids it",
     "ask the administrator for a rule that allows it"},
    {SR_WAITPID_FAILED, "the tool's end could not be learned, or the tool took too long",
     "see whether what it works on answers, then try again"},
    {SR_FORK_FAILED, "the tool could not be started", "see the agent's log"},
    {SR_FEATURE_ISNT_IMPLEMENTED, "no such operation, or its tool is not installed",
     "install the tool where the agent runs"},
};

const Meaning* FindMeaning(int status) {
    for (const Meaning& meaning : kMeanings) {
        if (meaning.status == status) {
            return &meaning;
        }
    }
    return nullptr;
}

int ExitStatus(int status) {
    switch (status) {
        case SR_COMM_NO_SERVICE:
            return kNobodyThere;
        case SR_COMM_FAILED:
            return kUsage;
        default:
            return kRefused;
    }
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"mount", "[OPTION]... [SOURCE] TARGET", SR_Mount},
        {"umount", "[OPTION]... TARGET", SR_Umount},
        {"mount-cifs", "[OPTION]... //HOST/SHARE TARGET", SR_Mount_Cifs},
        {"umount-cifs", "[OPTION]... TARGET", SR_Umount_Cifs},
        {"mknod", "[OPTION]... PATH TYPE [MAJOR MINOR]", SR_Mknod},
        {"insmod", "FILE [PARAMETER=VALUE]...", SR_Insmod},
        {"rmmod", "[OPTION]... MODULE", SR_Rmmod},
        {"systemctl", "[OPTION]... VERB [UNIT]...", SR_Systemctl},
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

int Carry(const Operation& operation, const std::string& text) {
    // A standard output that is not there: no output, rather than a descriptor that is refused.
    const int output = fcntl(1, F_GETFD) >= 0 ? 1 : 0;
    int result = 0;
    const int status =
        operation.call(text.data(), static_cast<unsigned>(text.size()), output, &result);
    if (status == SR_OK && result >= 0 && result <= kLastToolStatus) {
        return result;
    }
    if (status == SR_OK) {
        std::fprintf(stderr, "sentrel: %s: the tool's exit code is %d\n", operation.name, result);
        return kUsage;
    }
    const Meaning* meaning = FindMeaning(status);
    std::fprintf(stderr, "sentrel: %s: status %d, %s: %s\n", operation.name, status,
                 SR_ErrorToString(status),
                 meaning != nullptr ? meaning->text : "the agent answered with an unknown status");
    if (meaning != nullptr) {
        std::fprintf(stderr, "sentrel: what to do: %s\n", meaning->advice);
    }
    return ExitStatus(status);
}

void PrintErrors() {
    std::printf("STATUS  NAME                      EXIT   MEANING\n");
    for (const Meaning& meaning : kMeanings) {
        const std::string exit =
            meaning.status == SR_OK ? "0-124" : std::to_string(ExitStatus(meaning.status));
        const bool received =
            meaning.status != SR_COMM_OK && meaning.status != SR_COMM_SERVICE_EXISTS;
        std::printf("%-7d %-25s %-6s %s\n", meaning.status, SR_ErrorToString(meaning.status),
                    received ? exit.c_str() : "-", meaning.text);
        if (received) {
            std::printf("%-40s -> %s\n", "", meaning.advice);
        }
    }
}

}  // namespace cli
