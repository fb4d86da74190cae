// SPDX-License-Identifier: Apache-2.0
#include "Tolls.h"

namespace agent {

Tolls::Tolls(std::size_t requestsPerMinute)
    : perMinute(5 * static_cast<double>(requestsPerMinute)) {}

// A user is remembered while one of the buckets is not full; the others are forgotten meanwhile.
Tolls::User& Tolls::Find(uid_t uid, TimePoint now) {
    const auto known = users.find(uid);
    if (known != users.end()) {
        return known->second;
    }
    for (auto entry = users.begin(); entry != users.end();) {
        const User& user = entry->second;
        const bool idle = user.taken.IsFull(now) && user.away.IsFull(now);
        entry = idle ? users.erase(entry) : std::next(entry);
    }
    const User fresh = {Bucket(perMinute / 3, perMinute, now), Bucket(perMinute, perMinute, now),
                        now - std::chrono::minutes(1)};
    return users.emplace(uid, fresh).first->second;
}

Admission Tolls::Count(uid_t uid, TimePoint now) {
    if (uid == 0) {
        return Admission::kTaken;
    }
    User& user = Find(uid, now);
    if (user.taken.Take(now)) {
        return Admission::kTaken;
    }
    if (!user.away.Take(now)) {
        return Admission::kSilent;
    }
    if (now - user.told < std::chrono::seconds(1)) {
        return Admission::kAway;
    }
    user.told = now;
    return Admission::kFirstAway;
}

}  // namespace agent
