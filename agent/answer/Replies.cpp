// SPDX-License-Identifier: Apache-2.0
#include "Replies.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <utility>
#include <vector>

namespace agent {

namespace {

typedef std::chrono::steady_clock Clock;

const std::size_t kHeader = 160;  // about what a reply has beside its text

}  // namespace

// What may be unread. Questions under way hold it weakly: it may be gone when the bus answers.
struct Replies::Table {
    struct Unread {
        std::size_t bytes = 0;
        std::size_t later = 0;  // of these, what was sent since the bus was asked
    };
    struct User {
        std::map<std::string, Unread> names;
        std::size_t sum = 0;
        bool alone = false;
        std::size_t open = 0;  // questions
        Clock::time_point asked;
        Clock::time_point faded;
    };

    explicit Table(const ReplyLimits& limits_) : limits(limits_) {}

    std::size_t MostOf(uid_t uid) const { return uid == 0 ? limits.mostOfRoot : limits.most; }
    std::size_t FadeOf(uid_t uid) const { return uid == 0 ? limits.fadeOfRoot : limits.fade; }

    void Add(uid_t uid, User& user, const std::string& busName, std::size_t bytes) {
        if (user.names.empty()) {
            user.faded = Clock::now();
        }
        Unread& unread = user.names[busName];
        unread.bytes += bytes;
        unread.later += bytes;
        user.sum += bytes;
        owners[busName] = uid;
    }

    // No more than this of it is left; 0 takes the name out.
    void Lower(uid_t uid, const std::string& busName, std::size_t left) {
        User& user = users[uid];
        const auto entry = user.names.find(busName);
        if (entry == user.names.end() || entry->second.bytes < left) {
            return;
        }
        user.sum -= entry->second.bytes - left;
        entry->second.bytes = left;
        if (left == 0) {
            user.names.erase(entry);
            (void)owners.erase(busName);
        }
        user.alone = user.alone && user.sum > MostOf(uid) / 2;
    }

    void Told(uid_t uid, const std::string& busName, const sentrel::SR_DBusBacklog& backlog) {
        User& user = users[uid];
        user.open -= user.open > 0 ? 1 : 0;
        if (!backlog.IsKnown() && !backlog.IsGone()) {
            silentUntil = Clock::now() + std::chrono::minutes(1);
        }
        const auto entry = user.names.find(busName);
        if (entry != user.names.end() && backlog.IsGone()) {
            Lower(uid, busName, 0);
        } else if (entry != user.names.end() && backlog.IsKnown()) {
            Lower(uid, busName, backlog.GetBytes() + entry->second.later);
        }
    }

    // The bus does not tell: what was sent some time ago counts as read.
    void Fade(uid_t uid) {
        User& user = users[uid];
        const std::chrono::duration<double> passed = Clock::now() - user.faded;
        auto gone =
            static_cast<std::size_t>(passed.count() * static_cast<double>(FadeOf(uid)) / 60);
        user.faded = gone == 0 ? user.faded : Clock::now();
        while (gone > 0 && !user.names.empty()) {
            const auto first = user.names.begin();
            const std::size_t bytes = std::min(gone, first->second.bytes);
            gone -= bytes;
            Lower(uid, std::string(first->first), first->second.bytes - bytes);
        }
    }

    ReplyLimits limits;
    LeftAlone leftAlone;
    Clock::time_point silentUntil;  // the bus does not tell; it is asked again then
    std::map<uid_t, User> users;
    std::map<std::string, uid_t> owners;  // of the names that are in `users`
};

// The bus's word about one name.
class Replies::Told : public sentrel::BaseCallback<void, const sentrel::SR_DBusBacklog&> {
public:
    Told(const std::shared_ptr<Table>& table_, uid_t uid_, const std::string& busName_)
        : table(table_), uid(uid_), busName(busName_) {}

    void call(const sentrel::SR_DBusBacklog& backlog) const override {
        if (const std::shared_ptr<Table> kept = table.lock()) {
            kept->Told(uid, busName, backlog);
        }
    }

private:
    std::weak_ptr<Table> table;
    uid_t uid;
    std::string busName;
};

Replies::Replies(sentrel::SR_DBusConnection& connection_, const ReplyLimits& limits)
    : connection(connection_), table(std::make_shared<Table>(limits)) {}

Replies::~Replies() {}

void Replies::OnLeftAlone(const LeftAlone& leftAlone) {
    table->leftAlone = leftAlone;
}

void Replies::Send(uid_t uid, const sentrel::SR_DBusReturnAddress& address,
                   const sentrel::SR_DBusMessage& reply, std::size_t size) {
    if (!address.WantsReply()) {
        return;
    }
    Table::User& user = table->users[uid];
    const std::size_t bytes = kHeader + size;
    if (user.sum + bytes > table->limits.ask) {
        Ask(uid);
    }
    // One alone is always sent, however long it is.
    if (user.sum > 0 && user.sum + bytes > table->MostOf(uid)) {
        if (!user.alone && table->leftAlone) {
            table->leftAlone(uid, user.sum);
        }
        user.alone = true;
        return;
    }
    table->Add(uid, user, address.GetSender(), bytes);
    (void)connection.Send(reply, nullptr);
}

void Replies::Forget(const std::string& busName) {
    const auto owner = table->owners.find(busName);
    if (owner != table->owners.end()) {
        const uid_t uid = owner->second;
        table->Lower(uid, std::string(busName), 0);
        const auto user = table->users.find(uid);
        if (user->second.names.empty() && user->second.open == 0) {
            table->users.erase(user);
        }
    }
}

// One round at a time; the connections with most of it come first.
void Replies::Ask(uid_t uid) {
    Table::User& user = table->users[uid];
    if (Clock::now() < table->silentUntil) {
        return table->Fade(uid);
    }
    if (user.open > 0 || Clock::now() - user.asked < table->limits.pause) {
        return;
    }
    user.asked = Clock::now();
    std::vector<std::pair<std::size_t, std::string> > names;
    for (auto& entry : user.names) {
        names.emplace_back(entry.second.bytes, entry.first);
    }
    std::sort(names.rbegin(), names.rend());
    names.resize(std::min(names.size(), table->limits.questions));
    for (const auto& name : names) {
        const sentrel::Slot<void, const sentrel::SR_DBusBacklog&> told(
            boost::make_shared<Told>(table, uid, name.second));
        if (sentrel::SR_DBusBacklog::Ask(connection, name.second, told)) {
            user.names[name.second].later = 0;
            ++user.open;
        }
    }
}

}  // namespace agent
