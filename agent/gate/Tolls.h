// SPDX-License-Identifier: Apache-2.0
// Counts what each user sends, so that nothing that reaches the agent is free: every message is
// counted here before it is carried out or answered, whatever it is.
//
// A user may send five times as many messages as requests in a minute, a third of them in one
// burst. The next ones, up to a minute's worth more, are turned away with a short answer; beyond
// that nothing is answered at all, and the sender's own timeout tells it. Root is not counted.
// Knows users only. Threads: one.
#ifndef SENTREL_AGENT_TOLLS_H
#define SENTREL_AGENT_TOLLS_H

#include <sys/types.h>

#include <cstddef>
#include <map>

#include "base/Bucket.h"

namespace agent {

enum class Admission {
    kTaken,      // to be looked at
    kFirstAway,  // to be turned away, as the first of this user's within a second
    kAway,       // to be turned away
    kSilent      // to be left without an answer
};

class Tolls {
public:
    typedef Bucket::TimePoint TimePoint;

    explicit Tolls(std::size_t requestsPerMinute);

    Admission Count(uid_t uid, TimePoint now);

private:
    struct User {
        Bucket taken;
        Bucket away;
        TimePoint told;  // when one was turned away as the first
    };

    User& Find(uid_t uid, TimePoint now);

    double perMinute;
    std::map<uid_t, User> users;
};

}  // namespace agent

#endif
