// SPDX-License-Identifier: Apache-2.0
//
// sentrel-agent: carries out what callers of the library ask for, as far as the rules allow it.
//
// The order of work: make the process a safe place; read the options and the rules; connect;
// register the object; only then take the name, so that no call finds it without the object. One
// thread runs one loop; signals come in through a descriptor like everything else. After SIGTERM or
// SIGINT what is under way is brought to an end, and the program ends when the last answer has been
// given.
//
// Exit status: 0 after SIGTERM or SIGINT; 1 when the rules are wrong at the start, when the bus or
// the name cannot be had, or when the bus is lost; 2 for wrong options.

#include <fcntl.h>
#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusDispatcher.h>
#include <sentrel/SR_DBusError.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "LibraryLog.h"
#include "Options.h"
#include "answer/Log.h"
#include "base/Descriptors.h"
#include "base/Events.h"
#include "gate/Service.h"
#include "passage/Control.h"
#include "passage/Mock.h"
#include "passage/Requests.h"
#include "rules/RuleLoader.h"
#include "rules/RuleStore.h"

namespace {

using agent::Complain;

const int kDoNotQueue = 4;  // libdbus's name flag
const std::chrono::seconds kLongestEnd(5);
const std::chrono::seconds kLongestStart(60);
const std::chrono::seconds kLongestLoad(10);

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

// Nothing is taken from the environment but the bus's address.
bool CleanEnvironment() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string kept = address != nullptr ? address : "";
    return clearenv() == 0 && setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1) == 0 &&
           (kept.empty() || setenv("DBUS_SYSTEM_BUS_ADDRESS", kept.c_str(), 1) == 0);
}

// Each request takes some descriptors.
void RaiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 65536));
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// A descriptor on which the signals arrive; none when that cannot be had.
agent::OwnedFd PrepareSignals() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGCHLD, SIG_DFL);  // ignored, it would make children vanish unseen
    sigset_t awaited;
    (void)sigemptyset(&awaited);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        (void)sigaddset(&awaited, number);
    }
    if (sigprocmask(SIG_BLOCK, &awaited, nullptr) != 0) {
        return agent::OwnedFd();
    }
    return agent::OwnedFd(signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK));
}

void Report(const agent::LoadResult& result) {
    for (const std::string& error : result.errors) {
        Complain("rules: " + error);
    }
    for (const std::string& warning : result.warnings) {
        Complain("rules: warning: " + warning);
    }
}

void Reload(agent::RuleLoader& loader, const agent::RuleStore& store,
            const agent::RuleLoader::Done& done) {
    loader.Load([&store, done](const agent::LoadResult& result) {
        Report(result);
        Complain(result.errors.empty()
                     ? "rules: " + std::to_string(store.Count()) + " loaded"
                     : std::string("rules: not loaded; the ones of before stay in force"));
        done(result);
    });
}

// In the loop's other process too, so that this one never opens the account database.
agent::LoadResult LoadAtStart(sentrel::SR_MainLoop& loop, agent::RuleStore& store) {
    agent::RuleLoader loader(loop, store, kLongestStart);
    agent::LoadResult result;
    bool over = false;
    loader.Load([&result, &over](const agent::LoadResult& loaded) {
        result = loaded;
        over = true;
    });
    while (!over) {
        loop.Dispatch();
    }
    return result;
}

// Root's rules are checked as root's by whoever looks at them.
uid_t RuleOwner(const agent::Options& options) {
    struct stat found = {};
    const bool rootsOwn =
        options.check && stat(options.rules.front().c_str(), &found) == 0 && found.st_uid == 0;
    return rootsOwn ? 0 : geteuid();
}

int Check(const agent::Options& options) {
    agent::RuleStore store(options.rules, RuleOwner(options), options.toolPath);
    const agent::LoadResult result = store.Load();
    for (const std::string& error : result.errors) {
        std::cout << error << "\n";
    }
    for (const std::string& warning : result.warnings) {
        std::cout << warning << " (warning)\n";
    }
    std::cout << (result.errors.empty() ? std::to_string(store.Count()) + " rules can be used\n"
                                        : std::string("the rules cannot be used\n"));
    return result.errors.empty() ? 0 : 1;
}

// The library does not report the bus's answer to the request, so the bus is asked who has it.
bool TakeName(sentrel::SR_DBusConnection& connection) {
    connection.RequestName(agent::kServiceName, kDoNotQueue);
    sentrel::SR_DBusCallMessage question;
    (void)question.SetDestination("org.freedesktop.DBus");
    (void)question.SetPath("/org/freedesktop/DBus");
    (void)question.SetInterface("org.freedesktop.DBus");
    (void)question.SetMember("GetNameOwner");
    (void)question.GetWriter().AppendString(agent::kServiceName);
    const sentrel::SR_DBusMessage reply = connection.SendReplyAndBlock(question, -1);
    const char* own = connection.GetUniqueName();
    if (own != nullptr && std::strcmp(reply.GetReader().GetString(), own) == 0) {
        return true;
    }
    Complain(std::string("another process owns ") + agent::kServiceName + "; it must end first");
    return false;
}

struct Handlers {
    std::function<void()> onHangUp;
    std::function<void()> endAll;
    std::function<bool()> settled;
};

// Runs the loop until the end. After SIGTERM, and when the bus is lost, what is under way gets a
// few seconds.
int Run(sentrel::SR_DBusDispatcher& dispatcher, const agent::Service& service,
        const agent::OwnedFd& signals, const Handlers& handlers) {
    bool stop = false;
    bool late = false;
    const agent::Watch signalWatch(dispatcher, signals.Get(), [&] {
        signalfd_siginfo information = {};
        while (read(signals.Get(), &information, sizeof information) ==
               static_cast<ssize_t>(sizeof information)) {
            if (information.ssi_signo == static_cast<unsigned>(SIGHUP)) {
                handlers.onHangUp();
            } else {
                stop = true;
            }
        }
    });
    std::unique_ptr<agent::Timer> limit;
    for (;;) {
        dispatcher.DispatchPending();
        if (!limit && (stop || !service.Connected())) {
            if (!service.Connected()) {
                Complain("the connection to the bus is lost");
            }
            limit = std::make_unique<agent::Timer>(
                dispatcher, std::chrono::steady_clock::now() + kLongestEnd, [&] { late = true; });
            handlers.endAll();
        }
        if (limit && (late || handlers.settled())) {
            return service.Connected() ? 0 : 1;
        }
        dispatcher.Dispatch();
    }
}

// While the loop runs, nothing that is said waits for whoever reads it.
struct Logs {
    explicit Logs(sentrel::SR_MainLoop& loop)
        : errors(agent::StandardError(), loop), library(loop) {}
    agent::AttachedLog errors;
    agent::LibraryLog library;
};

int ServeRules(const agent::Options& options, const agent::OwnedFd& signals) {
    agent::RuleStore store(options.rules, geteuid(), options.toolPath);
    sentrel::SR_DBusDispatcher dispatcher;
    const Logs logs(dispatcher);
    const agent::LoadResult loaded = LoadAtStart(dispatcher, store);
    Report(loaded);
    if (!loaded.errors.empty()) {
        Complain("the rules are wrong; see above");
        return 1;
    }
    agent::SystemLog systemLog("sentrel-agent", agent::StandardError());
    const agent::AttachedLog attached(systemLog, dispatcher);
    agent::Audit audit = options.auditToStandardError ? agent::Audit(agent::StandardError())
                                                      : agent::Audit(systemLog);
    sentrel::SR_DBusConnection connection = sentrel::SR_DBusConnection::SystemBus(dispatcher);
    agent::Service service(dispatcher, connection, options.limits.perMinute);
    agent::Requests requests(dispatcher, store, audit, options.limits);
    agent::RuleLoader loader(dispatcher, store, kLongestLoad);
    agent::Control control(
        requests, store, [&](const agent::RuleLoader::Done& done) { Reload(loader, store, done); });
    service.Serve(requests, control);
    if (!TakeName(connection)) {
        return 1;
    }
    Complain(std::string("serving ") + agent::kServiceName + ", " + std::to_string(store.Count()) +
             " rules");
    Handlers handlers;
    handlers.onHangUp = [&] { Reload(loader, store, [](const agent::LoadResult&) {}); };
    handlers.endAll = [&] {
        requests.EndAll();
        service.Finish();
    };
    handlers.settled = [&requests] { return requests.Settled(); };
    return Run(dispatcher, service, signals, handlers);
}

int ServeMock(const agent::Options& options, const agent::OwnedFd& signals) {
    const agent::MockTable table = agent::ReadMockTable(options.mock);
    if (!table.errors.empty()) {
        for (const std::string& error : table.errors) {
            Complain(error);
        }
        return 1;
    }
    sentrel::SR_DBusDispatcher dispatcher;
    const Logs logs(dispatcher);
    sentrel::SR_DBusConnection connection = sentrel::SR_DBusConnection::SystemBus(dispatcher);
    agent::Service service(dispatcher, connection, options.limits.perMinute);
    agent::Mock mock(dispatcher, table.rows);
    service.Serve(mock, mock);
    if (!TakeName(connection)) {
        return 1;
    }
    Complain(std::string("serving ") + agent::kServiceName + " from a table, " +
             std::to_string(table.rows.size()) + " answers");
    Handlers handlers;
    handlers.onHangUp = [] { Complain("a table is read at the start only"); };
    handlers.endAll = [&] {
        service.Finish();
        mock.EndAll();
    };
    handlers.settled = [&mock] { return mock.Settled(); };
    return Run(dispatcher, service, signals, handlers);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 1) {
        return 2;
    }
    if (!FillStandardDescriptors() || !CleanEnvironment()) {
        return 1;
    }
    (void)prctl(PR_SET_DUMPABLE, 0);
    agent::Options options;
    const int early = agent::ReadOptions(argc, argv, options);
    if (early >= 0) {
        return early;
    }
    if (options.check) {
        return Check(options);
    }
    RaiseDescriptorLimit();
    const agent::OwnedFd signals = PrepareSignals();
    if (!signals) {
        Complain("the signals cannot be watched");
        return 1;
    }
    try {
        return options.mock.empty() ? ServeRules(options, signals) : ServeMock(options, signals);
    } catch (const sentrel::SR_DBusException& exception) {
        Complain(std::string("the bus: ") + exception.what());
    } catch (const std::exception& exception) {
        Complain(exception.what());
    }
    return 1;
}
