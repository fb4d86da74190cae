// SPDX-License-Identifier: Apache-2.0
// sentrel: the command. Asks the agent to carry an operation out and ends as the tool ended, or
// asks it about itself. Here the words of the command line are told apart.
#include <getopt.h>
#include <sentrel/Arguments.h>
#include <sentrel/SR_API.h>

#include <cstdio>
#include <exception>
#include <optional>

#include "Ask.h"
#include "Carry.h"
#include "Doctor.h"
#include "ForProgram.h"
#include "Operations.h"
#include "Outcome.h"
#include "Quote.h"
#include "Similar.h"
#include "Trace.h"

namespace {

const char kHelp[] =
    "Usage: sentrel [OPTION]... OPERATION WORD...\n"
    "       sentrel [OPTION]... raw OPERATION TEXT\n"
    "       sentrel [OPTION]... test OPERATION WORD...\n"
    "       sentrel [OPTION]... status | reload | mounts | doctor | errors | version\n"
    "       sentrel help [OPERATION]\n"
    "Ask the agent to carry out an operation that needs root. The words are those of the standard\n"
    "tool; its output appears on standard output.\n"
    "\n"
    "Operations:\n";

const char kHelpEnd[] =
    "\n"
    "  --json       print for a program: one JSON text, the tool's output in it\n"
    "  --raw        let the tool's output reach a terminal as it is; by default control "
    "characters\n"
    "               are shown as \\xHH there\n"
    "  -q, --quiet  no messages about a failed operation or question\n"
    "  --trace      print the library's log on standard error\n"
    "  -h, --help   print this text and exit\n"
    "  --version    the same as version\n"
    "\n"
    "Exit status: the tool's own up to 124; 125 wrong usage, a failed exchange, or a tool's exit\n"
    "code above 124; 126 refused or failed by the agent; 127 no agent there.\n";

int PrintVersion(const cli::Options& options) {
    if (options.json) {
        std::printf("%s\n", cli::VersionLine(SENTREL_VERSION, SR_ConfigInfo()).c_str());
    } else {
        std::printf("sentrel %s, interface %s\n", SENTREL_VERSION, SR_ConfigInfo());
    }
    return 0;
}

int PrintErrors(const cli::Options& options) {
    cli::PrintErrors(options);
    return 0;
}

int UsageError(const std::string& text) {
    cli::Complain(text);
    cli::Complain("see sentrel --help");
    return cli::kUsage;
}

// Of an operation or, where the word may be one, of a command of our own.
int UnknownName(const std::string& place, const std::string& name,
                const std::vector<std::string>& names) {
    const std::string meant = cli::Similar(name, names);
    return UsageError(place + "no such operation: " + name +
                      (meant.empty() ? "" : "; did you mean " + meant + "?"));
}

std::vector<std::string> OperationNames() {
    std::vector<std::string> names;
    for (const cli::Operation& operation : cli::Operations()) {
        names.emplace_back(operation.name);
    }
    return names;
}

int PrintOperationHelp(const cli::Operation& operation) {
    std::printf(
        "Usage: sentrel [OPTION]... %s %s\n"
        "The words are those of %s, as far as the agent's rules allow them:\n"
        "  sentrel test %s %s    what the agent would decide, and why\n"
        "  sentrel %s %s\n"
        "\n"
        "The options of sentrel itself: sentrel --help\n",
        operation.name, operation.operands, operation.tool, operation.name, operation.example,
        operation.name, operation.example);
    return 0;
}

bool AsksForHelp(const std::vector<std::string>& words) {
    return !words.empty() && (words[0] == "--help" || words[0] == "-h");
}

// What is done with an operation's text: cli::Carry or cli::AskTest.
typedef int (*Use)(const cli::Operation&, const std::string&, const cli::Options&);

// The text is used once it is sure that the bus will carry it.
int Send(const cli::Operation& operation, const std::string& text, Use use,
         const cli::Options& options) {
    if (text.size() > sentrel::Arguments::kMostBytes) {
        return UsageError(std::string(operation.name) + ": the words make more than " +
                          std::to_string(sentrel::Arguments::kMostBytes) + " bytes of text");
    }
    return use(operation, text, options);
}

int RunOperation(const cli::Operation& operation, const std::vector<std::string>& words, Use use,
                 const cli::Options& options) {
    const std::string name = operation.name;
    if (AsksForHelp(words)) {
        return PrintOperationHelp(operation);
    }
    if (words.empty()) {
        return UsageError("usage: sentrel " + name + " " + operation.operands);
    }
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (!cli::IsText(words[i])) {
            return UsageError(name + ": word " + std::to_string(i + 1) + " is not valid UTF-8");
        }
    }
    return Send(operation, cli::JoinQuoted(words), use, options);
}

int RunRaw(const std::vector<std::string>& words, const cli::Options& options) {
    if (words.size() != 2) {
        return UsageError("usage: sentrel raw OPERATION TEXT");
    }
    const cli::Operation* operation = cli::FindOperation(words[0]);
    if (operation == nullptr) {
        return UnknownName("raw: ", words[0], OperationNames());
    }
    if (!cli::IsText(words[1])) {
        return UsageError("raw: the text is not valid UTF-8");
    }
    return Send(*operation, words[1], cli::Carry, options);
}

int RunTest(const std::vector<std::string>& words, const cli::Options& options) {
    if (words.empty()) {
        return UsageError("usage: sentrel test OPERATION WORD...");
    }
    const cli::Operation* operation = cli::FindOperation(words[0]);
    if (operation == nullptr) {
        return UnknownName("", words[0], OperationNames());
    }
    return RunOperation(*operation, {words.begin() + 1, words.end()}, cli::AskTest, options);
}

int RunHelp(const std::vector<std::string>& words, const cli::Options& options);

struct Command {
    const char* name;
    const char* help;
    int (*withWords)(const std::vector<std::string>& words, const cli::Options& options);
    int (*alone)(const cli::Options& options);
};

const Command kCommands[] = {
    {"raw", "send the argument text as it is instead of making it from words", RunRaw, nullptr},
    {"test", "ask what the agent would decide, and why, without carrying it out", RunTest, nullptr},
    {"status", "print how the agent is doing", nullptr, cli::AskStatus},
    {"reload", "let the agent read its rules again (root)", nullptr, cli::AskReload},
    {"mounts", "print what is mounted through the agent", nullptr, cli::AskMounts},
    {"doctor", "look at each step of the way to the agent, and say what to do", nullptr,
     cli::Doctor},
    {"errors", "print the status codes and what they mean", nullptr, PrintErrors},
    {"help", "print this text, or what an operation's words are", RunHelp, nullptr},
    {"version", "print the versions of the command and of the library's interface", nullptr,
     PrintVersion},
};

int PrintHelp() {
    (void)std::fputs(kHelp, stdout);
    for (const cli::Operation& operation : cli::Operations()) {
        std::printf("  %-12s %s\n", operation.name, operation.operands);
    }
    std::printf("\n");
    for (const Command& command : kCommands) {
        std::printf("  %-12s %s\n", command.name, command.help);
    }
    (void)std::fputs(kHelpEnd, stdout);
    return 0;
}

const Command* FindCommand(const std::string& name) {
    for (const Command& command : kCommands) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

std::vector<std::string> AllNames() {
    std::vector<std::string> names = OperationNames();
    for (const Command& command : kCommands) {
        names.emplace_back(command.name);
    }
    return names;
}

int RunHelp(const std::vector<std::string>& words, const cli::Options& /*options*/) {
    if (words.size() > 1) {
        return UsageError("usage: sentrel help [OPERATION]");
    }
    if (words.empty() || FindCommand(words[0]) != nullptr) {
        return PrintHelp();
    }
    const cli::Operation* operation = cli::FindOperation(words[0]);
    return operation == nullptr ? UnknownName("help: ", words[0], AllNames())
                                : PrintOperationHelp(*operation);
}

// Reads options up to the first word that is none. An exit status when there is nothing more to do;
// `place` begins the message about a wrong one.
std::optional<int> ReadOptions(int argc, char** argv, const std::string& place,
                               cli::Options& read) {
    enum { kJson = 1, kRaw, kTrace, kVersion };
    const option options[] = {{"json", no_argument, nullptr, kJson},
                              {"raw", no_argument, nullptr, kRaw},
                              {"quiet", no_argument, nullptr, 'q'},
                              {"trace", no_argument, nullptr, kTrace},
                              {"help", no_argument, nullptr, 'h'},
                              {"version", no_argument, nullptr, kVersion},
                              {nullptr, 0, nullptr, 0}};
    // "+": what follows the operation belongs to the tool.
    for (int found = 0; (found = getopt_long(argc, argv, "+hq", options, nullptr)) != -1;) {
        switch (found) {
            case kJson:
                read.json = true;
                break;
            case kRaw:
                read.raw = true;
                break;
            case 'q':
                read.quiet = true;
                break;
            case kTrace:
                cli::SetTrace(true);
                break;
            case 'h':
                return PrintHelp();
            case kVersion:
                return PrintVersion(read);
            default:
                return UsageError(place + "wrong option");
        }
    }
    return std::nullopt;
}

// `argv` is what follows the options, the command's name first.
int RunCommand(const Command& command, int argc, char** argv, cli::Options& options) {
    // Options may also follow a command of our own.
    optind = 1;
    const std::string place = std::string(command.name) + ": ";
    if (const std::optional<int> ended = ReadOptions(argc, argv, place, options)) {
        return *ended;
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    if (command.withWords != nullptr) {
        return command.withWords(words, options);
    }
    if (!words.empty()) {
        return UsageError(place + "no word is expected");
    }
    return command.alone(options);
}

int Run(int argc, char** argv) {
    cli::Options options;
    if (const std::optional<int> ended = ReadOptions(argc, argv, "", options)) {
        return *ended;
    }
    argc -= optind;
    argv += optind;
    if (argc == 0) {
        return UsageError("an operation is missing");
    }
    const Command* command = FindCommand(argv[0]);
    if (command != nullptr) {
        return RunCommand(*command, argc, argv, options);
    }
    const cli::Operation* operation = cli::FindOperation(argv[0]);
    if (operation == nullptr) {
        return UnknownName("", argv[0], AllNames());
    }
    return RunOperation(*operation, {argv + 1, argv + argc}, cli::Carry, options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "sentrel: out of memory\n");
    } catch (const std::exception& exception) {
        cli::Complain(exception.what());
    }
    return cli::kUsage;
}
