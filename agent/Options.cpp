// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <getopt.h>

#include <cstdio>

#include "answer/Log.h"
#include "base/Result.h"
#include "base/Text.h"

namespace agent {

namespace {

const char kHelp[] =
    "Usage: sentrel-agent [OPTION]...\n"
    "   or: sentrel-agent --check [OPTION]... [DIR]...\n"
    "Serve org.sentrel.sr_agent on the system bus: carry out mount, umount, mknod, insmod, rmmod\n"
    "and systemctl for callers of the library, as far as the rules allow it.\n"
    "\n"
    "  --rules DIR         read the rules (*.toml) of this directory; may be given again (default\n"
    "                      /usr/lib/sentrel/rules.d, /etc/sentrel/rules.d, /run/sentrel/rules.d)\n"
    "  --check [DIR]...    say what is wrong with the rules, by file and line, and exit: 0 when\n"
    "                      they can be used, 1 when not\n"
    "  --tool-path DIRS    look for the tools in these directories, absolute and with colons "
    "between\n"
    "                      them (default /usr/sbin:/usr/bin:/sbin:/bin)\n"
    "  --limit NAME=COUNT  running (at once, of one user; default 4), waiting (of one user; 16),\n"
    "                      minute (requests of one user; 120), total (running at once; 32)\n"
    "  --audit-stderr      write the audit to standard error instead of the system's log\n"
    "  --mock FILE         ask no rule and start no tool: answer from a table\n"
    "  --help              print this text and exit\n"
    "  --version           print the version and exit\n"
    "\n"
    "SIGHUP reads the rules again. Wrong rules are refused: at the start the agent ends with 1,\n"
    "later it keeps the ones that it has. The bus is the one named by DBUS_SYSTEM_BUS_ADDRESS, or\n"
    "else the machine's. As another user than root, rules and tools must belong to that user or\n"
    "to root.\n";

Check ReadToolPath(const std::string& text, Options& options) {
    for (const std::string& directory : Split(text, ':')) {
        if (!StartsWith(directory, "/")) {
            return Refusal{"--tool-path: not an absolute directory in: " + text};
        }
    }
    options.toolPath = text;
    return Fine();
}

Check ReadLimit(const std::string& text, QuotaLimits& limits) {
    const std::size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    const std::string count = equals == std::string::npos ? "" : text.substr(equals + 1);
    std::size_t* const limit = name == "running"   ? &limits.running
                               : name == "waiting" ? &limits.waiting
                               : name == "minute"  ? &limits.perMinute
                               : name == "total"   ? &limits.total
                                                   : nullptr;
    const std::optional<std::size_t> number = ToNumber<std::size_t>(count);
    if (limit == nullptr || !number || count.size() > 4 || (*number == 0 && name != "waiting")) {
        return Refusal{"--limit: not running, waiting, minute or total with a number up to 9999: " +
                       text};
    }
    *limit = *number;
    return Fine();
}

// --check takes its directories as operands too.
Check ReadOperands(int argc, char** argv, Options& options) {
    for (int i = optind; i < argc; ++i) {
        if (!options.check) {
            return Refusal{std::string("no operand is expected: ") + argv[i]};
        }
        options.rules.push_back(argv[i]);
    }
    options.rulesNamed = !options.rules.empty();
    if (!options.rulesNamed) {
        options.rules = {"/usr/lib/sentrel/rules.d", "/etc/sentrel/rules.d",
                         "/run/sentrel/rules.d"};
    }
    return Fine();
}

enum { kRules = 1, kCheck, kToolPath, kLimit, kAudit, kMock, kHelpAsked, kVersion };

const option kKnown[] = {{"rules", required_argument, nullptr, kRules},
                         {"check", no_argument, nullptr, kCheck},
                         {"tool-path", required_argument, nullptr, kToolPath},
                         {"limit", required_argument, nullptr, kLimit},
                         {"audit-stderr", no_argument, nullptr, kAudit},
                         {"mock", required_argument, nullptr, kMock},
                         {"help", no_argument, nullptr, kHelpAsked},
                         {"version", no_argument, nullptr, kVersion},
                         {nullptr, 0, nullptr, 0}};

Check ReadOption(int which, const std::string& argument, Options& options) {
    switch (which) {
        case kRules:
            options.rules.push_back(argument);
            break;
        case kCheck:
            options.check = true;
            break;
        case kToolPath:
            return ReadToolPath(argument, options);
        case kLimit:
            return ReadLimit(argument, options.limits);
        case kAudit:
            options.auditToStandardError = true;
            break;
        case kMock:
            options.mock = argument;
            break;
        case kHelpAsked:
            (void)std::fputs(kHelp, stdout);
            options.exit = 0;
            break;
        case kVersion:
            (void)std::printf("sentrel-agent %s\n", SENTREL_VERSION);
            options.exit = 0;
            break;
        default:
            options.exit = 2;  // getopt_long has complained
    }
    return Fine();
}

}  // namespace

Options ReadOptions(int argc, char** argv) {
    Options options;
    Check read = Fine();
    for (int found = 0;
         read && !options.exit && (found = getopt_long(argc, argv, "", kKnown, nullptr)) != -1;) {
        read = ReadOption(found, optarg != nullptr ? optarg : "", options);
    }
    if (read && !options.exit) {
        read = ReadOperands(argc, argv, options);
    }
    if (!read) {
        Complain(read.Reason());
        options.exit = 2;
    }
    return options;
}

}  // namespace agent
