// SPDX-License-Identifier: Apache-2.0
#include "Quota.h"

#include <algorithm>

namespace agent {

Quota::Quota(const QuotaLimits& quotaLimits) : limits(quotaLimits) {}

void Quota::Refill(User& user, TimePoint now) const {
    const double burst = static_cast<double>(limits.perMinute);
    const std::chrono::duration<double> passed = now - user.counted;
    user.tokens = std::min(burst, user.tokens + passed.count() * burst / 60.0);
    user.counted = now;
}

// A uid is remembered while it has requests or owes time.
void Quota::ForgetIdle(TimePoint now) {
    for (auto entry = users.begin(); entry != users.end();) {
        User& user = entry->second;
        Refill(user, now);
        const bool idle = user.running.empty() && user.waiting.empty() &&
                          user.tokens >= static_cast<double>(limits.perMinute);
        entry = idle ? users.erase(entry) : std::next(entry);
    }
}

bool Quota::HasRoom(const User& user) const {
    return total < limits.total && user.running.size() < limits.running;
}

Quota::Entry Quota::Enter(uid_t uid, std::uint64_t id, TimePoint now, std::string& reason) {
    ForgetIdle(now);
    auto entry = users.find(uid);
    if (entry == users.end()) {
        entry = users.emplace(uid, User()).first;
        entry->second.tokens = static_cast<double>(limits.perMinute);
        entry->second.counted = now;
    }
    User& user = entry->second;
    if (user.tokens < 1) {
        reason = "too many requests in a minute";
        return Entry::kRefused;
    }
    // Behind those that wait already, even when there is room for a moment.
    const bool run = user.waiting.empty() && HasRoom(user);
    if (!run && user.waiting.size() >= limits.waiting) {
        reason = "too many requests are waiting";
        return Entry::kRefused;
    }
    user.tokens -= 1;
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
