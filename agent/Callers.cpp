// SPDX-License-Identifier: Apache-2.0
#include "Callers.h"

#include <limits.h>
#include <sentrel/SR_DBusCredentials.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <map>

namespace agent {

namespace {

std::string ExecutableOf(pid_t pid) {
    char path[PATH_MAX];
    const ssize_t length =
        readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
    return length > 0 && length < static_cast<ssize_t>(sizeof path)
               ? std::string(path, static_cast<std::size_t>(length))
               : std::string();
}

}  // namespace

struct Callers::Table {
    struct Entry {
        std::string sender;
        Known known;
    };

    explicit Table(const CallerLimits& callerLimits) : limits(callerLimits) {}

    void Erase(std::uint64_t id) {
        const auto entry = entries.find(id);
        if (entry == entries.end()) {
            return;
        }
        const auto count = counts.find(entry->second.sender);
        if (--count->second == 0) {
            counts.erase(count);
        }
        const Entry kept = std::move(entry->second);
        entries.erase(entry);
    }

    CallerLimits limits;
    std::uint64_t lastId = 0;
    std::map<std::uint64_t, Entry> entries;
    std::map<std::string, std::size_t> counts;
};

// Lives in libdbus until the bus has answered; the table may be gone by then.
class Callers::Reply : public sentrel::BaseCallback<void, const sentrel::SR_DBusCredentials*> {
public:
    Reply(const std::shared_ptr<Table>& callers, std::uint64_t number)
        : table(callers), id(number) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() override {
        if (const std::shared_ptr<Table> kept = table.lock()) {
            kept->Erase(id);
        }
    }

    void call(const sentrel::SR_DBusCredentials* credentials) const override {
        const std::shared_ptr<Table> kept = table.lock();
        if (!kept || credentials == nullptr) {
            return;
        }
        const auto entry = kept->entries.find(id);
        if (entry == kept->entries.end()) {
            return;
        }
        Caller caller;
        caller.busName = entry->second.sender;
        caller.groups = credentials->GetGroups();
        (void)credentials->GetUid(caller.uid);
        if (!credentials->GetPid(caller.pid) || caller.pid < 0) {
            caller.pid = 0;
        }
        caller.executable = caller.pid > 0 ? ExecutableOf(caller.pid) : "";
        const Known known = entry->second.known;
        kept->Erase(id);
        known(caller);
    }

private:
    std::weak_ptr<Table> table;
    std::uint64_t id;
};

Callers::Callers(sentrel::SR_DBusConnection& bus, const CallerLimits& limits)
    : connection(bus), table(std::make_shared<Table>(limits)) {}

Callers::~Callers() {}

bool Callers::Ask(const std::string& sender, const Known& known) {
    const auto count = table->counts.find(sender);
    if (table->entries.size() >= table->limits.all ||
        (count != table->counts.end() && count->second >= table->limits.ofOne)) {
        return false;
    }
    const std::uint64_t id = ++table->lastId;
    table->entries[id] = Table::Entry{sender, known};
    ++table->counts[sender];
    // On failure the slot goes, and the entry with it.
    return sentrel::SR_DBusCredentials::Ask(connection, sender,
                                            sentrel::Slot<void, const sentrel::SR_DBusCredentials*>(
                                                boost::make_shared<Reply>(table, id)));
}

}  // namespace agent
