// SPDX-License-Identifier: Apache-2.0
// With hardening on, the headers would define what is defined here.
#undef _FORTIFY_SOURCE
#include "FakePoll.h"

#include <sys/time.h>

#include <cerrno>

namespace test {

std::function<int(pollfd* slots, nfds_t count, int timeout)> onPoll;
std::vector<PollCall> polls;
long long wallClock = 0;
int clockReadings = 0;
bool clockFails = false;

void ResetPoll() {
    onPoll = nullptr;
    polls.clear();
    wallClock = 1700000000LL * 1000000;
    clockReadings = 0;
    clockFails = false;
}

int Results(pollfd* slots, nfds_t count, const std::vector<int>& results) {
    int ready = 0;
    for (nfds_t i = 0; i < count && i < results.size(); ++i) {
        slots[i].revents = static_cast<short>(results[i]);
        ready += results[i] != 0;
    }
    return ready;
}

}  // namespace test

extern "C" {

int __poll_chk(pollfd* slots, nfds_t count, int timeout, std::size_t size);

int poll(pollfd* slots, nfds_t count, int timeout) {
    test::polls.push_back(
        test::PollCall{std::vector<pollfd>(slots, slots + count), count, timeout});
    return test::onPoll ? test::onPoll(slots, count, timeout) : 0;
}

// What poll becomes with hardening on.
int __poll_chk(pollfd* slots, nfds_t count, int timeout, std::size_t /*size*/) {
    return poll(slots, count, timeout);
}

int gettimeofday(timeval* __restrict time, void* __restrict /*zone*/) noexcept {
    ++test::clockReadings;
    if (test::clockFails) {
        errno = EINVAL;
        return -1;
    }
    time->tv_sec = static_cast<time_t>(test::wallClock / 1000000);
    time->tv_usec = static_cast<suseconds_t>(test::wallClock % 1000000);
    return 0;
}

}  // extern "C"
