// SPDX-License-Identifier: Apache-2.0
// sentrel: the command. Asks the agent to carry an operation out, and ends as the tool ended.
#include <getopt.h>
#include <sentrel/SR_API.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "Operations.h"
#include "Quote.h"
#include "Trace.h"

namespace {

const char kHelp[] =
    "Usage: sentrel [--trace] OPERATION WORD...\n"
    "       sentrel [--trace] raw OPERATION TEXT\n"
    "       sentrel errors | version\n"
    "Ask the agent to carry out an operation that needs root. The words are those of the standard\n"
    "tool; its output appears on standard output.\n"
    "\n"
    "Operations:\n";

const char kHelpEnd[] =
    "\n"
    "  raw       send the argument text as it is instead of making it from words\n"
    "  errors    print the status codes and what they mean\n"
    "  version   print the versions of the command and of the library's interface\n"
    "\n"
    "  --trace   print the library's log on standard error\n"
    "  --help    print this text and exit\n"
    "  --version the same as version\n"
    "\n"
    "Exit status: the tool's own up to 124; 125 wrong usage, a failed exchange, or a tool's exit\n"
    "code above 124; 126 refused or failed by the agent; 127 no agent there.\n";

void PrintHelp() {
    (void)std::fputs(kHelp, stdout);
    for (const cli::Operation& operation : cli::Operations()) {
        std::printf("  %-12s %s\n", operation.name, operation.operands);
    }
    (void)std::fputs(kHelpEnd, stdout);
}

int PrintVersion() {
    std::printf("sentrel %s, interface %s\n", SENTREL_VERSION, SR_ConfigInfo());
    return 0;
}

int UsageError(const std::string& text) {
    std::fprintf(stderr, "sentrel: %s\nsentrel: see sentrel --help\n", text.c_str());
    return cli::kUsage;
}

// Sends the text once it is sure that the bus will carry it.
int Send(const cli::Operation& operation, const std::string& text) {
    if (text.size() > cli::kMostBytes) {
        return UsageError(std::string(operation.name) + ": the words make more than " +
                          std::to_string(cli::kMostBytes) + " bytes of text");
    }
    return cli::Carry(operation, text);
}

int RunOperation(const cli::Operation& operation, int count, char** words) {
    if (count == 0) {
        return UsageError(std::string("usage: sentrel ") + operation.name + " " +
                          operation.operands);
    }
    std::vector<std::string> given(words, words + count);
    for (std::size_t i = 0; i < given.size(); ++i) {
        if (!cli::IsText(given[i])) {
            return UsageError(std::string(operation.name) + ": word " + std::to_string(i + 1) +
                              " is not valid UTF-8");
        }
    }
    return Send(operation, cli::JoinQuoted(given));
}

int RunRaw(int count, char** words) {
    if (count != 2) {
        return UsageError("usage: sentrel raw OPERATION TEXT");
    }
    const cli::Operation* operation = cli::FindOperation(words[0]);
    if (operation == nullptr) {
        return UsageError(std::string("raw: no such operation: ") + words[0]);
    }
    if (!cli::IsText(words[1])) {
        return UsageError("raw: the text is not valid UTF-8");
    }
    return Send(*operation, words[1]);
}

int Run(int count, char** words) {
    if (count == 0) {
        return UsageError("an operation is missing");
    }
    const std::string name = words[0];
    if (name == "raw") {
        return RunRaw(count - 1, words + 1);
    }
    const cli::Operation* operation = cli::FindOperation(name);
    if (operation != nullptr) {
        return RunOperation(*operation, count - 1, words + 1);
    }
    if (name != "errors" && name != "version") {
        return UsageError("no such operation: " + name);
    }
    if (count != 1) {
        return UsageError(name + ": no word is expected");
    }
    if (name == "version") {
        return PrintVersion();
    }
    cli::PrintErrors();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    enum { kTrace = 1, kHelpAsked, kVersion };
    const option options[] = {{"trace", no_argument, nullptr, kTrace},
                              {"help", no_argument, nullptr, kHelpAsked},
                              {"version", no_argument, nullptr, kVersion},
                              {nullptr, 0, nullptr, 0}};
    // "+": what follows the operation belongs to the tool.
    for (int found = 0; (found = getopt_long(argc, argv, "+", options, nullptr)) != -1;) {
        switch (found) {
            case kTrace:
                cli::SetTrace(true);
                break;
            case kHelpAsked:
                PrintHelp();
                return 0;
            case kVersion:
                return PrintVersion();
            default:
                return UsageError("wrong option");
        }
    }
    try {
        return Run(argc - optind, argv + optind);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "sentrel: out of memory\n");
        return cli::kUsage;
    }
}
