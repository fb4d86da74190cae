// SPDX-License-Identifier: Apache-2.0
//
// sentrel-agent: carries out what callers of the library ask for.
//
// The order of work: read the options; make sure that descriptors 0 to 2 exist and that the signals
// are as needed; connect; register the object; only then take the name, so that no call finds it
// without the object. One thread runs one loop. A turn dispatches the messages that have come,
// waits for the next event, and lets the runner do what is due. SIGTERM and SIGINT come in through
// a descriptor like everything else; what is under way is then brought to an end, and the program
// ends when the last answer has been given.
//
// Exit status: 0 after SIGTERM or SIGINT, 1 when the bus or the name cannot be had or the bus is
// lost, 2 for wrong options.

#include <getopt.h>
#include <poll.h>
#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusDispatcher.h>
#include <sentrel/SR_DBusError.h>
#include <sys/signalfd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Service.h"
#include "Tools.h"

namespace {

const int kDoNotQueue = 4;  // libdbus's name flag

const char kHelp[] =
    "Usage: sentrel-agent [OPTION]...\n"
    "Serve org.sentrel.sr_agent on the system bus: carry out mount, umount, mknod, insmod, rmmod\n"
    "and systemctl for callers of the library. In this version every request is refused, unless\n"
    "--allow-all is given.\n"
    "\n"
    "  --allow-all         carry out whatever anybody on the bus asks for, as this user. For "
    "trying\n"
    "                      out only: on a bus that others can reach it gives this user's rights "
    "away\n"
    "  --deadline SECONDS  end a tool that has run this long, 1 to 20 (default 20)\n"
    "  --tool-path DIRS    look for the tools in these directories, absolute and with colons "
    "between\n"
    "                      them (default /usr/sbin:/usr/bin:/sbin:/bin)\n"
    "  --help              print this text and exit\n"
    "  --version           print the version and exit\n"
    "\n"
    "The bus is the one named by DBUS_SYSTEM_BUS_ADDRESS, or else the machine's.\n";

void Complain(const std::string& text) {
    std::fprintf(stderr, "sentrel-agent: %s\n", text.c_str());
}

bool ReadDeadline(const char* text, int& seconds) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 1 || value > 20) {
        Complain(std::string("--deadline: not a number from 1 to 20: ") + text);
        return false;
    }
    seconds = static_cast<int>(value);
    return true;
}

bool ReadToolPath(const std::string& text, std::string& directories) {
    for (std::size_t at = 0; at != std::string::npos; at = text.find(':', at)) {
        at += at > 0 ? 1U : 0U;
        if (text.compare(at, 1, "/") != 0) {
            Complain("--tool-path: not an absolute directory in: " + text);
            return false;
        }
        ++at;
    }
    directories = text;
    return true;
}

// Less than 0: go on. Otherwise the exit status.
int ReadOptions(int argc, char** argv, agent::Settings& settings) {
    enum { kAllowAll = 1, kDeadline, kToolPath, kHelpAsked, kVersion };
    const option options[] = {{"allow-all", no_argument, nullptr, kAllowAll},
                              {"deadline", required_argument, nullptr, kDeadline},
                              {"tool-path", required_argument, nullptr, kToolPath},
                              {"help", no_argument, nullptr, kHelpAsked},
                              {"version", no_argument, nullptr, kVersion},
                              {nullptr, 0, nullptr, 0}};
    for (int found = 0; (found = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        bool good = true;
        switch (found) {
            case kAllowAll:
                settings.allowAll = true;
                break;
            case kDeadline:
                good = ReadDeadline(optarg, settings.deadlineSeconds);
                break;
            case kToolPath:
                good = ReadToolPath(optarg, settings.toolPath);
                break;
            case kHelpAsked:
                (void)std::fputs(kHelp, stdout);
                return 0;
            case kVersion:
                std::printf("sentrel-agent %s\n", SENTREL_VERSION);
                return 0;
            default:
                good = false;  // getopt_long has complained
        }
        if (!good) {
            return 2;
        }
    }
    if (optind != argc) {
        Complain(std::string("no operand is expected: ") + argv[optind]);
        return 2;
    }
    return -1;
}

// Later descriptors must never be taken for the standard ones.
bool FillStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= 2) {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    if (fd > 2) {
        (void)close(fd);
    }
    return fd > 2;
}

// A descriptor on which SIGTERM and SIGINT arrive; not open when there is none.
agent::Fd PrepareSignals() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // ignored, it would make children vanish unseen
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGINT);
    if (sigprocmask(SIG_BLOCK, &awaited, nullptr) != 0) {
        return agent::Fd();
    }
    return agent::Fd(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
}

// The library does not report the bus's answer to the request, so the bus is asked who has it.
bool TakeName(sentrel::SR_DBusConnection& connection) {
    connection.RequestName(agent::kName, kDoNotQueue);
    sentrel::SR_DBusCallMessage question;
    (void)question.SetDestination("org.freedesktop.DBus");
    (void)question.SetPath("/org/freedesktop/DBus");
    (void)question.SetInterface("org.freedesktop.DBus");
    (void)question.SetMember("GetNameOwner");
    (void)question.GetWriter().AppendString(agent::kName);
    const sentrel::SR_DBusMessage reply = connection.SendReplyAndBlock(question, -1);
    const char* own = connection.GetUniqueName();
    return own != nullptr && std::strcmp(reply.GetReader().GetString(), own) == 0;
}

int Serve(const agent::Settings& settings, const agent::Fd& signals) {
    sentrel::SR_DBusDispatcher dispatcher;
    sentrel::SR_DBusConnection connection = sentrel::SR_DBusConnection::SystemBus(dispatcher);
    agent::Service service(connection, dispatcher, settings);
    if (!TakeName(connection)) {
        Complain(std::string("another process owns ") + agent::kName + "; it must end first");
        return 1;
    }
    bool stop = false;
    const agent::Watch signalWatch(signals.Get(), POLLIN, dispatcher, [&] {
        signalfd_siginfo information = {};
        stop = read(signals.Get(), &information, sizeof(information)) > 0 || stop;
    });
    Complain(std::string("serving ") + agent::kName +
             (settings.allowAll ? ", everything allowed" : ", everything refused"));

    bool lost = false;
    for (;;) {
        dispatcher.DispatchPending();
        lost = !service.Connected();
        if (stop || lost) {
            service.EndAll();
        }
        service.Turn();
        if ((stop || lost) && service.Settled()) {
            break;
        }
        dispatcher.Dispatch();
    }
    if (lost) {
        Complain("the connection to the bus is lost");
    }
    return lost ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    agent::Settings settings;
    settings.toolPath = agent::kToolPath;
    const int early = ReadOptions(argc, argv, settings);
    if (early >= 0) {
        return early;
    }
    if (!FillStandardDescriptors()) {
        return 1;
    }
    const agent::Fd signals = PrepareSignals();
    if (!signals.Open()) {
        Complain("the signals cannot be watched");
        return 1;
    }
    try {
        return Serve(settings, signals);
    } catch (const sentrel::SR_DBusException& exception) {
        Complain(std::string("the bus: ") + exception.what());
    } catch (const std::exception& exception) {
        Complain(exception.what());
    }
    return 1;
}
