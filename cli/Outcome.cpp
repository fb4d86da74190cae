// SPDX-License-Identifier: Apache-2.0
#include "Outcome.h"

#include <sentrel/SR_API.h>

#include "ForProgram.h"

namespace cli {

const char kStartAgent[] = "start the agent: systemctl start sentrel-agent";
const char kAskDoctor[] = "sentrel doctor tells where it fails";

namespace {

const Meaning* FindMeaning(int status) {
    for (const Meaning& meaning : Meanings()) {
        if (meaning.status == status) {
            return &meaning;
        }
    }
    return nullptr;
}

// Of any status but SR_OK, unknown ones included.
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

const std::vector<Meaning>& Meanings() {
    static const std::vector<Meaning> meanings = {
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
    return meanings;
}

const char* StatusName(int status) {
    return SR_ErrorToString(status);
}

bool Meaning::IsReceived() const {
    return status != SR_COMM_OK && status != SR_COMM_SERVICE_EXISTS;
}

std::optional<int> Meaning::Exit() const {
    return IsReceived() && status != SR_OK ? std::optional<int>(ExitStatus(status)) : std::nullopt;
}

void PrintErrors(const Options& options) {
    if (options.json) {
        std::printf("%s\n", MeaningsLine(Meanings()).c_str());
        return;
    }
    std::printf("STATUS  NAME                      EXIT   MEANING\n");
    for (const Meaning& meaning : Meanings()) {
        const std::optional<int> fixed = meaning.Exit();
        const std::string exit = fixed                  ? std::to_string(*fixed)
                                 : meaning.IsReceived() ? "0-124"
                                                        : "-";
        std::printf("%-7d %-25s %-6s %s\n", meaning.status, StatusName(meaning.status),
                    exit.c_str(), meaning.text);
        if (meaning.IsReceived()) {
            std::printf("%-40s -> %s\n", "", meaning.advice);
        }
    }
}

bool Outcome::IsTools() const {
    return status == SR_OK && value >= 0 && value <= kLastToolStatus;
}

int Outcome::Exit() const {
    return IsTools() ? value : status == SR_OK ? kUsage : ExitStatus(status);
}

std::string Outcome::Text() const {
    if (status == SR_OK) {
        return "the tool's exit code is " + std::to_string(value);
    }
    const Meaning* meaning = FindMeaning(status);
    return meaning != nullptr ? meaning->text : "the agent answered with an unknown status";
}

std::string Outcome::Advice() const {
    const Meaning* meaning = FindMeaning(status);
    return status == SR_OK || meaning == nullptr ? "" : meaning->advice;
}

}  // namespace cli
