// SPDX-License-Identifier: Apache-2.0
// How much one uid may ask for: requests that come in a minute, that run at once and that wait.
// Waiting ones are served uid by uid in turn, each uid's in the order in which they came. What it
// sends at all is counted before; see Tolls.h.
//
// Knows requests by a number only and starts nothing itself. Threads: one.
#ifndef SENTREL_AGENT_QUOTA_H
#define SENTREL_AGENT_QUOTA_H

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <vector>

#include "base/Bucket.h"
#include "base/Result.h"

namespace agent {

struct QuotaLimits {
    std::size_t running = 4;      // of one uid
    std::size_t waiting = 16;     // of one uid
    std::size_t perMinute = 120;  // of one uid; as many may come in one burst
    std::size_t total = 32;       // running, of all uids together
};

class Quota {
public:
    typedef Bucket::TimePoint TimePoint;
    enum class Entry { kRun, kWait };

    explicit Quota(const QuotaLimits& limits_);

    // Asks for a place for request `id`, a number not in use. Nothing is kept of one that is
    // refused.
    Result<Entry> Enter(uid_t uid, std::uint64_t id, TimePoint now);
    // The request has ended, or one that waited gives up. The ones that may run now, in order;
    // their places are taken already.
    std::vector<std::uint64_t> Leave(uid_t uid, std::uint64_t id);

    std::size_t Running() const { return total; }
    std::size_t Waiting() const;

private:
    struct User {
        Bucket requests;
        std::vector<std::uint64_t> running;
        std::deque<std::uint64_t> waiting;
    };

    // The user's entry; the idle ones are forgotten meanwhile.
    User& Find(uid_t uid, TimePoint now);
    bool HasRoom(const User& user) const;

    QuotaLimits limits;
    std::map<uid_t, User> users;
    std::deque<uid_t> order;  // uids with waiting requests, the next one first
    std::size_t total = 0;
};

}  // namespace agent

#endif
