// SPDX-License-Identifier: Apache-2.0
#include "Tolls.h"

#include <algorithm>

namespace agent {

Tolls::Tolls(std::size_t requestsPerMinute)
    : perMinute(5 * static_cast<double>(requestsPerMinute)) {}

void Tolls::Bucket::Refill(std::chrono::duration<double> passed) {
    tokens = std::min(burst, tokens + passed.count() * perMinute / 60.0);
}

bool Tolls::Bucket::Take() {
    const bool taken = tokens >= 1;
    tokens -= taken ? 1 : 0;
    return taken;
}

// A user is remembered while one of the buckets is not full; the others are forgotten meanwhile.
Tolls::User& Tolls::Find(uid_t uid, TimePoint now) {
    const auto known = users.find(uid);
    if (known != users.end()) {
        User& user = known->second;
        user.taken.Refill(now - user.counted);
        user.away.Refill(now - user.counted);
        user.counted = now;
        return user;
    }
    for (auto entry = users.begin(); entry != users.end();) {
        const bool full = now - entry->second.counted >= std::chrono::minutes(1);
        entry = full ? users.erase(entry) : std::next(entry);
    }
    User& user = users[uid];
    user.taken = {perMinute / 3, perMinute / 3, perMinute};
    user.away = {perMinute, perMinute, perMinute};
    user.counted = now;
    user.told = now - std::chrono::minutes(1);
    return user;
}

Turn Tolls::Count(uid_t uid, TimePoint now) {
    if (uid == 0) {
        return Turn::kTaken;
    }
    User& user = Find(uid, now);
    if (user.taken.Take()) {
        return Turn::kTaken;
    }
    if (!user.away.Take()) {
        return Turn::kSilent;
    }
    if (now - user.told < std::chrono::seconds(1)) {
        return Turn::kAway;
    }
    user.told = now;
    return Turn::kFirstAway;
}

}  // namespace agent
