// SPDX-License-Identifier: Apache-2.0
#include "Ask.h"

#include <cstdio>
#include <cstring>
#include <limits>

#include "Control.h"
#include "ForProgram.h"
#include "Outcome.h"
#include "Quote.h"
#include "Told.h"

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
        std::printf("%s\n", FailureLine(failure, refusal.exit, refusal.advice).c_str());
    } else if (!options.quiet) {
        Complain(std::string(question) + ": " + failure.error + ": " + failure.text);
        Complain(std::string("what to do: ") + refusal.advice);
    }
    return refusal.exit;
}

// Asks, and prints the answer as it came for a program. Anything but 0 ends the command.
int Ask(const char* question, const char* member, const std::vector<std::string>& texts,
        Told::Shape expected, const Options& options, Told& told) {
    const Answer received = AskControl(member, texts);
    if (!received.error.empty()) {
        return Report(question, received, options);
    }
    told = Told::Read(received.text, expected);
    if (!told.error.empty()) {
        return Report(
            question,
            Answer{"org.sentrel.Error.Answer", "the answer is not readable: " + told.error},
            options);
    }
    if (options.json) {
        std::printf("%s\n", told.line.c_str());
    }
    return 0;
}

std::string Duration(long long seconds) {
    std::string text;
    if (seconds >= kDay) {
        text += std::to_string(seconds / kDay) + " d ";
    }
    if (seconds >= kHour) {
        text += std::to_string(seconds % kDay / kHour) + " h ";
    }
    if (seconds >= kMinute) {
        text += std::to_string(seconds % kHour / kMinute) + " min ";
    }
    return text + std::to_string(seconds % kMinute) + " s";
}

void PrintLine(const std::string& name, const std::string& text) {
    std::printf("%-10s %s\n", (Printable(name) + ":").c_str(), Printable(text).c_str());
}

// A line for each, or the words of a command line on one.
void PrintList(const std::string& name, const std::vector<std::string>& words) {
    if (name == "argv") {
        PrintLine(name, JoinQuoted(words));
        return;
    }
    for (const std::string& word : words) {
        PrintLine(name, word);
    }
}

// Of a status that the agent has told; empty for what is none.
std::string NameOfStatus(long long number) {
    const bool fits =
        number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max();
    return fits ? std::string(" ") + StatusName(static_cast<int>(number)) : "";
}

// The fields in the agent's order, those that a later agent adds included.
void PrintFields(const Fields& fields) {
    for (const Field& field : fields) {
        if (field.list) {
            PrintList(field.name, *field.list);
        } else if (field.number && field.name == "uptime_s") {
            PrintLine("uptime", Duration(*field.number));
        } else if (field.number && field.name == "status") {
            PrintLine(field.name, field.text + NameOfStatus(*field.number));
        } else if (!field.text.empty()) {
            PrintLine(field.name, field.text);
        }
    }
}

}  // namespace

int AskTest(const Operation& operation, const std::string& text, const Options& options) {
    Told told;
    const int failed =
        Ask("test", "Test", {operation.operation, text}, Told::kObject, options, told);
    if (failed != 0) {
        return failed;
    }
    if (!options.json) {
        PrintFields(told.objects[0]);
    }
    return TextOf(told.objects[0], "decision") == "allow" ? 0 : kRefused;
}

int AskStatus(const Options& options) {
    Told told;
    const int failed = Ask("status", "Status", {}, Told::kObject, options, told);
    if (failed == 0 && !options.json) {
        PrintFields(told.objects[0]);
    }
    return failed;
}

int AskReload(const Options& options) {
    Told told;
    const int failed = Ask("reload", "Reload", {}, Told::kObject, options, told);
    if (failed != 0) {
        return failed;
    }
    if (!options.json) {
        PrintFields(told.objects[0]);
    }
    const Field* errors = FindField(told.objects[0], "errors");
    if (errors == nullptr || !errors->list || errors->list->empty()) {
        return 0;
    }
    if (!options.json && !options.quiet) {
        Complain("reload: the rules are as they were: mend the errors, then reload again");
    }
    return kRefused;
}

int AskMounts(const Options& options) {
    Told told;
    const int failed = Ask("mounts", "Mounts", {}, Told::kObjects, options, told);
    if (failed != 0 || options.json) {
        return failed;
    }
    for (const Fields& mount : told.objects) {
        const std::string line = TextOf(mount, "source") + " on " + TextOf(mount, "target") +
                                 " type " + TextOf(mount, "type") + " (rule " +
                                 TextOf(mount, "rule") + ", uid " + TextOf(mount, "uid") +
                                 ", since " + TextOf(mount, "since") + ")";
        std::printf("%s\n", Printable(line).c_str());
    }
    return 0;
}

}  // namespace cli
