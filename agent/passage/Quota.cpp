// SPDX-License-Identifier: Apache-2.0
#include "Quota.h"

#include <algorithm>

namespace agent {

Quota::Quota(const QuotaLimits& quotaLimits) : limits(quotaLimits) {}

void Quota::Bucket::Refill(TimePoint now) {
    const std::chrono::duration<double> passed = now - counted;
    tokens = std::min(burst, tokens + passed.count() * perMinute / 60.0);
    counted = now;
}

// A uid is remembered while it has requests or owes time.
Quota::User& Quota::Find(uid_t uid, TimePoint now) {
    for (auto entry = users.begin(); entry != users.end();) {
        User& user = entry->second;
        user.requests.Refill(now);
        const bool idle = user.running.empty() && user.waiting.empty() &&
                          user.requests.tokens >= user.requests.burst;
        entry = idle ? users.erase(entry) : std::next(entry);
    }
    const auto entry = users.find(uid);
    if (entry != users.end()) {
        return entry->second;
    }
    const double requests = static_cast<double>(limits.perMinute);
    User& user = users[uid];
    user.requests = {requests, requests, requests, now};
    return user;
}

bool Quota::HasRoom(const User& user) const {
    return total < limits.total && user.running.size() < limits.running;
}

Quota::Entry Quota::Enter(uid_t uid, std::uint64_t id, TimePoint now, std::string& reason) {
    User& user = Find(uid, now);
    if (user.requests.tokens < 1) {
        reason = "too many requests in a minute";
        return Entry::kRefused;
    }
    // Behind those that wait already, even when there is room for a moment.
    const bool run = user.waiting.empty() && HasRoom(user);
    if (!run && user.waiting.size() >= limits.waiting) {
        reason = "too many requests are waiting";
        return Entry::kRefused;
    }
    user.requests.tokens -= 1;
    if (run) {
        user.running.push_back(id);
        ++total;
        return Entry::kRun;
    }
    if (user.waiting.empty()) {
        turns.push_back(uid);
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
            turns.erase(std::find(turns.begin(), turns.end(), uid));
        }
    }
    // One round over the uids that wait, again while there is room for anybody.
    for (std::size_t without = 0; !turns.empty() && without < turns.size();) {
        const uid_t next = turns.front();
        turns.pop_front();
        User& served = users[next];
        const bool room = HasRoom(served);
        if (room) {
            started.push_back(served.waiting.front());
            served.running.push_back(served.waiting.front());
            served.waiting.pop_front();
            ++total;
        }
        without = room ? 0 : without + 1;
        if (!served.waiting.empty()) {
            turns.push_back(next);
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
