// SPDX-License-Identifier: Apache-2.0
//
// sentrel-agent: carries out what callers of the library ask for, as far as the rules allow it.
//
// The order of work: make the process a safe place; read the options and the rules; connect;
// register the object; only then take the name, so that no call finds it without the object. One
// thread runs one loop, until a signal ends it or the bus is lost; see Loop.h.
//
// Exit status: 0 after SIGTERM or SIGINT; 1 when the rules are wrong at the start, when the bus or
// the name cannot be had, or when the bus is lost; 2 for wrong options.

#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusError.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <string>

#include "Loop.h"
#include "Options.h"
#include "Rules.h"
#include "SafeProcess.h"
#include "answer/Audit.h"
#include "answer/Log.h"
#include "gate/Service.h"
#include "passage/Control.h"
#include "passage/Mock.h"
#include "passage/Requests.h"

namespace agent {

namespace {

const std::chrono::seconds kLongestLoad(10);

// Takes the name, which opens the door. False when it cannot be had.
bool Open(Service& service, const std::string& what) {
    const Check taken = service.TakeName();
    Complain(taken ? std::string("serving ") + kServiceName + what : taken.Reason());
    return static_cast<bool>(taken);
}

int ServeRules(const Options& options) {
    Loop loop;
    RuleStore store(options.rules, geteuid(), options.toolPath);
    if (!LoadRules(loop.Dispatcher(), store)) {
        return 1;
    }
    SystemLog systemLog("sentrel-agent", StandardError());
    const AttachedLog attached(systemLog, loop.Dispatcher());
    Audit audit = options.auditToStandardError ? Audit(StandardError()) : Audit(systemLog);
    sentrel::SR_DBusConnection connection =
        sentrel::SR_DBusConnection::SystemBus(loop.Dispatcher());
    Service service(loop.Dispatcher(), connection, options.limits.perMinute);
    Requests requests(loop.Dispatcher(), store, audit, options.limits);
    RuleLoader loader(loop.Dispatcher(), store, kLongestLoad);
    const auto reload = [&](const RuleLoader::Done& done) { ReloadRules(loader, store, done); };
    Control control(requests, store, reload);
    service.Serve(requests, control);
    if (!Open(service, ", " + std::to_string(store.Count()) + " rules")) {
        return 1;
    }
    Loop::Tasks tasks;
    tasks.hangUp = [&] { reload([](const LoadResult&) {}); };
    tasks.endAll = [&] {
        requests.EndAll();
        service.Finish();
    };
    tasks.settled = [&] { return requests.Settled(); };
    tasks.connected = [&] { return service.Connected(); };
    return loop.Run(tasks) ? 0 : 1;
}

int ServeMock(const Options& options, const MockTable& table) {
    Loop loop;
    sentrel::SR_DBusConnection connection =
        sentrel::SR_DBusConnection::SystemBus(loop.Dispatcher());
    Service service(loop.Dispatcher(), connection, options.limits.perMinute);
    Mock mock(loop.Dispatcher(), table.rows);
    service.Serve(mock, mock);
    if (!Open(service, " from a table, " + std::to_string(table.rows.size()) + " answers")) {
        return 1;
    }
    Loop::Tasks tasks;
    tasks.hangUp = [] { Complain("a table is read at the start only"); };
    tasks.endAll = [&] {
        service.Finish();
        mock.EndAll();
    };
    tasks.settled = [&] { return mock.Settled(); };
    tasks.connected = [&] { return service.Connected(); };
    return loop.Run(tasks) ? 0 : 1;
}

// What is wrong with the table is said before there is a loop: then each line waits for its reader.
int ReadAndServeMock(const Options& options) {
    const MockTable table = ReadMockTable(options.mock);
    for (const std::string& error : table.errors) {
        Complain(error);
    }
    return table.errors.empty() ? ServeMock(options, table) : 1;
}

int Serve(const Options& options) {
    try {
        return options.mock.empty() ? ServeRules(options) : ReadAndServeMock(options);
    } catch (const sentrel::SR_DBusException& exception) {
        Complain(std::string("the bus: ") + exception.what());
    } catch (const std::exception& exception) {
        Complain(exception.what());
    }
    return 1;
}

}  // namespace

}  // namespace agent

int main(int argc, char** argv) {
    if (argc < 1) {
        return 2;
    }
    if (!agent::MakeProcessSafe()) {
        return 1;
    }
    const agent::Options options = agent::ReadOptions(argc, argv);
    if (options.exit) {
        return *options.exit;
    }
    return options.check ? agent::CheckRules(options) : agent::Serve(options);
}
