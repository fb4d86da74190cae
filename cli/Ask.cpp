// SPDX-License-Identifier: Apache-2.0
#include "Ask.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Control.h"
#include "Json.h"
#include "Outcome.h"
#include "Quote.h"

namespace cli {

namespace {

const long long kMinute = 60;
const long long kHour = 60 * kMinute;
const long long kDay = 24 * kHour;

struct Refusal {
    const char* error;  // the end of the D-Bus error's name
    int exit;
    const char* advice;
};

const Refusal kRefusals[] = {
    {".ServiceUnknown", kNobodyThere, kStartAgent},
    {".NameHasNoOwner", kNobodyThere, kStartAgent},
    {".AccessDenied", kRefused, "ask as root, or see sentrel doctor"},
    {".UnknownMethod", kUsage, "this agent does not answer such questions"},
    {".UnknownInterface", kUsage, "this agent does not answer such questions"},
    {".UnknownObject", kUsage, "this agent does not answer such questions"},
};

Refusal FindRefusal(const std::string& error) {
    for (const Refusal& refusal : kRefusals) {
        const std::size_t length = std::strlen(refusal.error);
        if (error.size() > length &&
            error.compare(error.size() - length, length, refusal.error) == 0) {
            return refusal;
        }
    }
    return Refusal{"", kUsage, kAskDoctor};
}

int Report(const char* question, const Answer& failure, const Options& options) {
    const Refusal refusal = FindRefusal(failure.error);
    if (options.json) {
        const Json object = Json::Object()
                                .Add("error", Json::Text(failure.error))
                                .Add("text", Json::Text(failure.text))
                                .Add("exit", Json::Number(refusal.exit))
                                .Add("advice", Json::Text(refusal.advice));
        std::printf("%s\n", object.Write().c_str());
    } else if (!options.quiet) {
        Complain(std::string(question) + ": " + failure.error + ": " + failure.text);
        Complain(std::string("what to do: ") + refusal.advice);
    }
    return refusal.exit;
}

// Asks, and prints the answer as it came for a program. Anything but 0 ends the command.
int Ask(const char* question, const char* member, const std::vector<std::string>& texts,
        Json::Kind expected, const Options& options, Json& answer) {
    const Answer received = AskControl(member, texts);
    if (!received.error.empty()) {
        return Report(question, received, options);
    }
    if (!Json::Parse(received.text, answer) || answer.GetKind() != expected) {
        return Report(question, Answer{"org.sentrel.Error.Answer", "the answer is not readable"},
                      options);
    }
    if (options.json) {
        std::printf("%s\n", answer.Write().c_str());
    }
    return 0;
}

std::string Duration(const std::string& seconds) {
    const long long all = std::atoll(seconds.c_str());
    std::string text;
    if (all >= kDay) {
        text += std::to_string(all / kDay) + " d ";
    }
    if (all >= kHour) {
        text += std::to_string(all % kDay / kHour) + " h ";
    }
    if (all >= kMinute) {
        text += std::to_string(all % kHour / kMinute) + " min ";
    }
    return text + std::to_string(all % kMinute) + " s";
}

// A line for each, or the words of a command line on one.
void PrintList(const std::string& name, const Json& list) {
    std::vector<std::string> words;
    for (const auto& member : list.GetMembers()) {
        words.push_back(member.second.Content());
    }
    if (name == "argv") {
        words = {JoinQuoted(words)};
    }
    for (const std::string& word : words) {
        std::printf("%-10s %s\n", (name + ":").c_str(), Printable(word).c_str());
    }
}

// The fields in the agent's order, those that a later agent adds included.
void PrintFields(const Json& object) {
    for (const auto& member : object.GetMembers()) {
        const Json& value = member.second;
        std::string name = Printable(member.first);
        std::string text = value.Content();
        if (value.GetKind() == Json::kList) {
            PrintList(name, value);
            continue;
        }
        if (name == "uptime_s") {
            name = "uptime";
            text = Duration(text);
        } else if (name == "status" && value.GetKind() == Json::kNumber) {
            const int status = static_cast<int>(std::atoll(text.c_str()));
            text += std::string(" ") + StatusName(status);
        }
        if (!text.empty()) {
            std::printf("%-10s %s\n", (name + ":").c_str(), Printable(text).c_str());
        }
    }
}

bool IsEmptyList(const Json& object, const char* name) {
    const Json* list = object.Find(name);
    return list == nullptr || list->GetMembers().empty();
}

}  // namespace

int AskTest(const Operation& operation, const std::string& text, const Options& options) {
    Json answer;
    const int failed =
        Ask("test", "Test", {operation.operation, text}, Json::kObject, options, answer);
    if (failed != 0) {
        return failed;
    }
    if (!options.json) {
        PrintFields(answer);
    }
    return answer.Field("decision") == "allow" ? 0 : kRefused;
}

int AskStatus(const Options& options) {
    Json answer;
    const int failed = Ask("status", "Status", {}, Json::kObject, options, answer);
    if (failed == 0 && !options.json) {
        PrintFields(answer);
    }
    return failed;
}

int AskReload(const Options& options) {
    Json answer;
    const int failed = Ask("reload", "Reload", {}, Json::kObject, options, answer);
    if (failed != 0) {
        return failed;
    }
    if (!options.json) {
        PrintFields(answer);
    }
    if (IsEmptyList(answer, "errors")) {
        return 0;
    }
    if (!options.json && !options.quiet) {
        Complain("reload: the rules are as they were: mend the errors, then reload again");
    }
    return kRefused;
}

int AskMounts(const Options& options) {
    Json answer;
    const int failed = Ask("mounts", "Mounts", {}, Json::kList, options, answer);
    if (failed != 0 || options.json) {
        return failed;
    }
    for (const auto& member : answer.GetMembers()) {
        const Json& mount = member.second;
        const std::string line = mount.Field("source") + " on " + mount.Field("target") + " type " +
                                 mount.Field("type") + " (rule " + mount.Field("rule") + ", uid " +
                                 mount.Field("uid") + ", since " + mount.Field("since") + ")";
        std::printf("%s\n", Printable(line).c_str());
    }
    return 0;
}

}  // namespace cli
