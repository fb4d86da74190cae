// SPDX-License-Identifier: Apache-2.0
#include "Operations.h"

#include <fcntl.h>
#include <sentrel/SR_API.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

#include "Json.h"
#include "Output.h"

namespace cli {

const char kStartAgent[] = "start the agent: systemctl start sentrel-agent";
const char kAskDoctor[] = "sentrel doctor tells where it fails";

namespace {

// More than the agent lets through.
const std::size_t kMostOutput = 4U << 20U;

struct Meaning {
    int status;
    const char* text;
    const char* advice;
};

const Meaning kMeanings[] = {
    {SR_OK, "the tool ran", "see its own exit code"},
    {SR_FAIL, "the agent refused or failed for a reason of its own",
     "see the reason in its output and the agent's log"},
    {SR_INVALID_REGEX, "the rule that would decide holds a pattern that is not valid",
     "ask the administrator to mend it"},
    {SR_COMM_OK, "inside the library: the exchange succeeded", "never reaches a caller"},
    {SR_COMM_SERVICE_EXISTS, "not used at present", "none"},
    {SR_COMM_NO_SERVICE, "nobody owns the agent's name on the bus", kStartAgent},
    {SR_COMM_FAILED, "the exchange with the agent failed", kAskDoctor},
    {SR_RULE_NO_FOUND, "no rule allows this, or one forbids it",
     "ask the administrator for a rule that allows it; sentrel test shows what decides"},
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

bool IsReceived(int status) {
    return status != SR_COMM_OK && status != SR_COMM_SERVICE_EXISTS;
}

struct Outcome {
    int status = SR_COMM_FAILED;
    int value = 0;

    bool IsTools() const { return status == SR_OK && value >= 0 && value <= kLastToolStatus; }
    int Exit() const { return IsTools() ? value : status == SR_OK ? kUsage : ExitStatus(status); }
    std::string Text() const {
        if (status == SR_OK) {
            return "the tool's exit code is " + std::to_string(value);
        }
        const Meaning* meaning = FindMeaning(status);
        return meaning != nullptr ? meaning->text : "the agent answered with an unknown status";
    }
    std::string Advice() const {
        const Meaning* meaning = FindMeaning(status);
        return status == SR_OK || meaning == nullptr ? "" : meaning->advice;
    }
};

Outcome Call(const Operation& operation, const std::string& text, int descriptor) {
    Outcome outcome;
    outcome.status =
        operation.call(text.data(), static_cast<unsigned>(text.size()), descriptor, &outcome.value);
    return outcome;
}

// The sink sees the output while the tool runs.
Outcome CallWith(const Operation& operation, const std::string& text,
                 const std::function<void(const std::string&)>& sink) {
    Outcome outcome;
    (void)WithOutput(
        [&](int descriptor) {
            outcome = Call(operation, text, descriptor);
            return 0;
        },
        sink);
    return outcome;
}

void Show(const std::string& text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
}

Outcome CallOnTerminal(const Operation& operation, const std::string& text) {
    Filter filter;
    const Outcome outcome =
        CallWith(operation, text, [&](const std::string& bytes) { Show(filter.Take(bytes)); });
    Show(filter.Finish());
    return outcome;
}

// A service's output often leads to the system's log, where the agent does not write for others.
bool IsSocket(int descriptor) {
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

int CarryForProgram(const Operation& operation, const std::string& text) {
    std::string output;
    const Outcome outcome = CallWith(operation, text, [&](const std::string& bytes) {
        output.append(bytes, 0, kMostOutput - output.size());
    });
    const Json object = Json::Object()
                            .Add("operation", Json::Text(operation.name))
                            .Add("status", Json::Number(outcome.status))
                            .Add("name", Json::Text(StatusName(outcome.status)))
                            .Add("value", Json::Number(outcome.value))
                            .Add("exit", Json::Number(outcome.Exit()))
                            .Add("output", Json::Text(output))
                            .Add("text", Json::Text(outcome.Text()))
                            .Add("advice", Json::Text(outcome.Advice()));
    Show(object.Write() + "\n");
    return outcome.Exit();
}

void Explain(const Operation& operation, const Outcome& outcome) {
    std::string line = operation.name;
    if (outcome.status != SR_OK) {
        line +=
            ": status " + std::to_string(outcome.status) + ", " + SR_ErrorToString(outcome.status);
    }
    Complain(line + ": " + outcome.Text());
    if (!outcome.Advice().empty()) {
        Complain("what to do: " + outcome.Advice());
    }
}

void PrintErrorsForProgram() {
    Json list = Json::List();
    for (const Meaning& meaning : kMeanings) {
        const bool fixed = IsReceived(meaning.status) && meaning.status != SR_OK;
        list.Add(Json::Object()
                     .Add("status", Json::Number(meaning.status))
                     .Add("name", Json::Text(StatusName(meaning.status)))
                     .Add("exit", fixed ? Json::Number(ExitStatus(meaning.status)) : Json())
                     .Add("text", Json::Text(meaning.text))
                     .Add("advice", Json::Text(meaning.advice)));
    }
    Show(list.Write() + "\n");
}

}  // namespace

const std::vector<Operation>& Operations() {
    static const std::vector<Operation> operations = {
        {"mount", "sr_mount", "[OPTION]... [SOURCE] TARGET", SR_Mount},
        {"umount", "sr_umount", "[OPTION]... TARGET", SR_Umount},
        {"mount-cifs", "sr_mount_cifs", "[OPTION]... //HOST/SHARE TARGET", SR_Mount_Cifs},
        {"umount-cifs", "sr_umount_cifs", "[OPTION]... TARGET", SR_Umount_Cifs},
        {"mknod", "sr_mknod", "[OPTION]... PATH TYPE [MAJOR MINOR]", SR_Mknod},
        {"insmod", "sr_insmod", "FILE [PARAMETER=VALUE]...", SR_Insmod},
        {"rmmod", "sr_rmmod", "[OPTION]... MODULE", SR_Rmmod},
        {"systemctl", "sr_systemctl", "[OPTION]... VERB [UNIT]...", SR_Systemctl},
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

const char* StatusName(int status) {
    return SR_ErrorToString(status);
}

int Carry(const Operation& operation, const std::string& text, const Options& options) {
    if (options.json) {
        return CarryForProgram(operation, text);
    }
    // A standard output that is not there: no output, rather than a descriptor that is refused.
    const int output = fcntl(STDOUT_FILENO, F_GETFD) >= 0 ? STDOUT_FILENO : 0;
    const bool filtered = !options.raw && isatty(output) != 0 && output != 0;
    const Outcome outcome = filtered           ? CallOnTerminal(operation, text)
                            : IsSocket(output) ? CallWith(operation, text, Show)
                                               : Call(operation, text, output);
    if (!outcome.IsTools() && !options.quiet) {
        Explain(operation, outcome);
    }
    return outcome.Exit();
}

void PrintErrors(const Options& options) {
    if (options.json) {
        PrintErrorsForProgram();
        return;
    }
    std::printf("STATUS  NAME                      EXIT   MEANING\n");
    for (const Meaning& meaning : kMeanings) {
        const std::string exit =
            meaning.status == SR_OK ? "0-124" : std::to_string(ExitStatus(meaning.status));
        const bool received = IsReceived(meaning.status);
        std::printf("%-7d %-25s %-6s %s\n", meaning.status, SR_ErrorToString(meaning.status),
                    received ? exit.c_str() : "-", meaning.text);
        if (received) {
            std::printf("%-40s -> %s\n", "", meaning.advice);
        }
    }
}

}  // namespace cli
