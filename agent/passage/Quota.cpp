// SPDX-License-Identifier: Apache-2.0
#include "Quota.h"

#include <algorithm>

namespace agent {

Quota::Quota(const QuotaLimits& limits_) : limits(limits_) {}

// A uid is remembered while it has requests or owes time.
Quota::User& Quota::Find(uid_t uid, TimePoint now) {
    for (auto entry = users.begin(); entry != users.end();) {
        const User& user = entry->second;
        const bool idle = user.running.empty() && user.waiting.empty() && user.requests.IsFull(now);
        entry = idle ? users.erase(entry) : std::next(entry);
    }
    const auto entry = users.find(uid);
    if (entry != users.end()) {
        return entry->second;
    }
    const double requests = static_cast<double>(limits.perMinute);
    return users.emplace(uid, User{Bucket(requests, requests, now), {}, {}}).first->second;
}

bool Quota::HasRoom(const User& user) const {
    return total < limits.total && user.running.size() < limits.running;
}

Result<Quota::Entry> Quota::Enter(uid_t uid, std::uint64_t id, TimePoint now) {
    User& user = Find(uid, now);
    if (!user.requests.HasOne(now)) {
        return Refusal{"too many requests in a minute"};
    }
    // Behind those that wait already, even when there is room for a moment.
    const bool run = user.waiting.empty() && HasRoom(user);
    if (!run && user.waiting.size() >= limits.waiting) {
        return Refusal{"too many requests are waiting"};
    }
    (void)user.requests.Take(now);
    if (run) {
        user.running.push_back(id);
        ++total;
        return Entry::kRun;
    }
    if (user.waiting.empty()) {
        order.push_back(uid);
    }
    user.waiting.push_back(id);
    return Entry::kWait;
}

std::vector<std::uint64_t> Quota::Leave(uid_t uid, std::uint64_t id) {
    std::vector<std::uint64_t> started;
    const auto entry = users.find(uid);
    if (entry == users.end()) {
        return started;
    }
    User& user = entry->second;
    const auto runs = std::find(user.running.begin(), user.running.end(), id);
    const auto waits = std::find(user.waiting.begin(), user.waiting.end(), id);
    if (runs != user.running.end()) {
        user.running.erase(runs);
        --total;
    } else if (waits != user.waiting.end()) {
        user.waiting.erase(waits);
        if (user.waiting.empty()) {
            order.erase(std::find(order.begin(), order.end(), uid));
        }
    }
    // One round over the uids that wait, again while there is room for anybody.
    for (std::size_t without = 0; !order.empty() && without < order.size();) {
        const uid_t next = order.front();
        order.pop_front();
        User& served = users.at(next);
        const bool room = HasRoom(served);
        if (room) {
            started.push_back(served.waiting.front());
            served.running.push_back(served.waiting.front());
            served.waiting.pop_front();
            ++total;
        }
        without = room ? 0 : without + 1;
        if (!served.waiting.empty()) {
            order.push_back(next);
        }
    }
    return started;
}

std::size_t Quota::Waiting() const {
    std::size_t count = 0;
    for (const auto& entry : users) {
        count += entry.second.waiting.size();
    }
    return count;
}

}  // namespace agent
