// SPDX-License-Identifier: Apache-2.0
#include "Callers.h"

#include <sentrel/SR_DBusCredentials.h>

#include <boost/make_shared.hpp>
#include <cstdint>
#include <list>
#include <map>
#include <unordered_map>
#include <vector>

namespace agent {

struct Callers::Table {
    struct Waiter {
        Known known;
        Unknown unknown;
    };
    struct Question {
        std::uint64_t id = 0;
        std::vector<Waiter> waiters;
        std::size_t size = 0;  // of what they keep
    };
    explicit Table(const CallerLimits& limits_) : limits(limits_) {}

    // Who waited for this question; it is over. None when it was over before.
    std::vector<Waiter> Close(const std::string& sender, std::uint64_t id) {
        const auto question = questions.find(sender);
        if (question == questions.end() || question->second.id != id) {
            return {};
        }
        std::vector<Waiter> waiters = std::move(question->second.waiters);
        waiting -= question->second.size;
        questions.erase(question);
        return waiters;
    }

    // Null when nothing is known.
    const Caller* Find(const std::string& sender) {
        const auto found = places.find(sender);
        if (found == places.end()) {
            return nullptr;
        }
        answers.splice(answers.begin(), answers, found->second);
        return &answers.front();
    }

    void Keep(const Caller& caller) {
        Forget(caller.busName);
        answers.push_front(caller);
        places[caller.busName] = answers.begin();
        if (answers.size() > limits.kept) {
            Forget(std::string(answers.back().busName));
        }
    }

    void Forget(const std::string& sender) {
        const auto found = places.find(sender);
        if (found != places.end()) {
            answers.erase(found->second);
            places.erase(found);
        }
    }

    CallerLimits limits;
    std::uint64_t lastId = 0;
    std::size_t waiting = 0;
    std::map<std::string, Question> questions;
    std::list<Caller> answers;                                            // the last used first
    std::unordered_map<std::string, std::list<Caller>::iterator> places;  // in `answers`
};

// Lives in libdbus until the bus has answered; the table may be gone by then.
class Callers::Reply : public sentrel::BaseCallback<void, const sentrel::SR_DBusCredentials*> {
public:
    Reply(const std::shared_ptr<Table>& table_, const std::string& sender_, std::uint64_t id_)
        : table(table_), sender(sender_), id(id_) {}
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;
    ~Reply() override {
        if (const std::shared_ptr<Table> kept = table.lock()) {
            (void)kept->Close(sender, id);
        }
    }

    void call(const sentrel::SR_DBusCredentials* credentials) const override {
        const std::shared_ptr<Table> kept = table.lock();
        if (!kept) {
            return;
        }
        const std::vector<Table::Waiter> waiters = kept->Close(sender, id);
        if (credentials == nullptr) {
            for (const Table::Waiter& waiter : waiters) {
                waiter.unknown("the bus does not know the caller");
            }
            return;
        }
        Caller caller;
        caller.busName = sender;
        caller.groups = credentials->GetGroups();
        (void)credentials->GetUid(caller.uid);
        if (!credentials->GetPid(caller.pid) || caller.pid < 0) {
            caller.pid = 0;
        }
        kept->Keep(caller);
        for (const Table::Waiter& waiter : waiters) {
            waiter.known(caller);
        }
    }

private:
    std::weak_ptr<Table> table;
    std::string sender;
    std::uint64_t id;
};

Callers::Callers(sentrel::SR_DBusConnection& connection_, const CallerLimits& limits)
    : connection(connection_), table(std::make_shared<Table>(limits)) {}

Callers::~Callers() {}

const Caller* Callers::Find(const std::string& sender) {
    return table->Find(sender);
}

void Callers::Forget(const std::string& sender) {
    table->Forget(sender);
}

void Callers::Ask(const std::string& sender, std::size_t size, const Known& known,
                  const Unknown& unknown) {
    const CallerLimits& limits = table->limits;
    if (const Caller* lately = table->Find(sender)) {
        known(Caller(*lately));
        return;
    }
    const auto open = table->questions.find(sender);
    const bool asked = open != table->questions.end();
    const std::size_t ahead = asked ? open->second.size : 0;
    if (table->waiting + size > limits.waiting || ahead + size > limits.ofOne ||
        (!asked && table->questions.size() >= limits.all)) {
        unknown("too many callers wait to be known");
        return;
    }
    table->waiting += size;
    if (asked) {
        open->second.waiters.push_back({known, unknown});
        open->second.size += size;
        return;
    }
    const std::uint64_t id = ++table->lastId;
    table->questions[sender] = Table::Question{id, {{known, unknown}}, size};
    const sentrel::Slot<void, const sentrel::SR_DBusCredentials*> reply(
        boost::make_shared<Reply>(table, sender, id));
    if (!sentrel::SR_DBusCredentials::Ask(connection, sender, reply)) {
        (void)table->Close(sender, id);
        unknown("the bus cannot be asked about the caller");
    }
}

}  // namespace agent
