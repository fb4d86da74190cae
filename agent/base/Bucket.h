// SPDX-License-Identifier: Apache-2.0
// Tokens that come back with time, for what a user may do so often: a full bucket is one burst, and
// a minute brings so many back. Who has none left waits, or is turned away. A value type; the time
// is the caller's to tell, and never goes back.
#ifndef SENTREL_AGENT_BUCKET_H
#define SENTREL_AGENT_BUCKET_H

#include <algorithm>
#include <chrono>

namespace agent {

class Bucket {
public:
    typedef std::chrono::steady_clock::time_point TimePoint;

    // Full at `now`.
    Bucket(double burst_, double perMinute_, TimePoint now)
        : burst(burst_), perMinute(perMinute_), tokens(burst_), counted(now) {}

    bool HasOne(TimePoint now) const { return Level(now) >= 1; }
    bool IsFull(TimePoint now) const { return Level(now) >= burst; }
    // Takes one. False when there is none.
    bool Take(TimePoint now) {
        tokens = Level(now);
        counted = now;
        const bool taken = tokens >= 1;
        tokens -= taken ? 1 : 0;
        return taken;
    }

private:
    double Level(TimePoint now) const {
        const std::chrono::duration<double> passed = now - counted;
        return std::min(burst, tokens + passed.count() * perMinute / 60);
    }

    double burst;
    double perMinute;
    double tokens;
    TimePoint counted;
};

}  // namespace agent

#endif
