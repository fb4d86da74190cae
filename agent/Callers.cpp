// SPDX-License-Identifier: Apache-2.0
#include "Callers.h"

#include <sentrel/SR_DBusCredentials.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstdint>
#include <list>
#include <map>
#include <vector>

namespace agent {

struct Callers::Table {
    typedef std::chrono::steady_clock Clock;

    struct Waiter {
        Known known;
        Unknown unknown;
    };
    struct Question {
        std::uint64_t id = 0;
        std::vector<Waiter> waiters;
    };
    struct Answer {
        Caller caller;
        Clock::time_point until;
    };

    explicit Table(const CallerLimits& callerLimits) : limits(callerLimits) {}

    // Who waited for this question; it is over. None when it was over before.
    std::vector<Waiter> Close(const std::string& sender, std::uint64_t id) {
        const auto question = questions.find(sender);
        if (question == questions.end() || question->second.id != id) {
            return {};
        }
        std::vector<Waiter> waiters = std::move(question->second.waiters);
        waiting -= waiters.size();
        questions.erase(question);
        return waiters;
    }

    // Null when nothing is known, or not lately.
    const Caller* Find(const std::string& sender) {
        const Clock::time_point now = Clock::now();
        answers.remove_if([now](const Answer& answer) { return answer.until <= now; });
        const auto found = std::find_if(
            answers.begin(), answers.end(),
            [&sender](const Answer& answer) { return answer.caller.busName == sender; });
        if (found == answers.end()) {
            return nullptr;
        }
        answers.splice(answers.begin(), answers, found);
        return &answers.front().caller;
    }

    void Keep(const Caller& caller) {
        answers.push_front(Answer{caller, Clock::now() + limits.keep});
        if (answers.size() > limits.kept) {
            answers.pop_back();
        }
    }

    CallerLimits limits;
    std::uint64_t lastId = 0;
    std::size_t waiting = 0;
    std::map<std::string, Question> questions;
    std::list<Answer> answers;  // the last used first
};

// Lives in libdbus until the bus has answered; the table may be gone by then.
class Callers::Reply : public sentrel::BaseCallback<void, const sentrel::SR_DBusCredentials*> {
public:
    Reply(const std::shared_ptr<Table>& callers, const std::string& busName, std::uint64_t number)
        : table(callers), sender(busName), id(number) {}
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

Callers::Callers(sentrel::SR_DBusConnection& bus, const CallerLimits& limits)
    : connection(bus), table(std::make_shared<Table>(limits)) {}

Callers::~Callers() {}

void Callers::Ask(const std::string& sender, const Known& known, const Unknown& unknown) {
    const CallerLimits& limits = table->limits;
    if (const Caller* lately = table->Find(sender)) {
        known(Caller(*lately));
        return;
    }
    const auto open = table->questions.find(sender);
    const bool asked = open != table->questions.end();
    if (table->waiting >= limits.waiting || (!asked && table->questions.size() >= limits.all) ||
        (asked && open->second.waiters.size() >= limits.ofOne)) {
        unknown("too many callers wait to be known");
        return;
    }
    ++table->waiting;
    if (asked) {
        open->second.waiters.push_back({known, unknown});
        return;
    }
    const std::uint64_t id = ++table->lastId;
    table->questions[sender] = Table::Question{id, {{known, unknown}}};
    const sentrel::Slot<void, const sentrel::SR_DBusCredentials*> reply(
        boost::make_shared<Reply>(table, sender, id));
    if (!sentrel::SR_DBusCredentials::Ask(connection, sender, reply)) {
        (void)table->Close(sender, id);
        unknown("the bus cannot be asked about the caller");
    }
}

}  // namespace agent
