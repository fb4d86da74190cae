// SPDX-License-Identifier: Apache-2.0
// The poll loop, one iteration at a time, on a clock and with results that the tests make.
#include "SR_MainLoop.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "FakePoll.h"

namespace {

using sentrel::SR_DBusMutex;
using sentrel::SR_MainLoop;
using sentrel::SR_TimeoutEvent;
using sentrel::SR_WatchEvent;
using test::Timer;
using test::Watch;

typedef std::vector<std::string> Journal;

class MainLoopTest : public testing::Test {
protected:
    MainLoopTest() { test::ResetPoll(); }
    ~MainLoopTest() override { test::ResetPoll(); }

    std::function<void()> Note(const std::string& text) {
        return [this, text] { journal.push_back(text); };
    }
    Watch* AddWatch(int fd, const std::string& name) { return new Watch(*loop, fd, Note(name)); }
    Watch* AddWatch(int fd, const std::function<void()>& handler) {
        return new Watch(*loop, fd, handler);
    }
    Timer* AddTimer(int interval, bool repeat, const std::string& name) {
        return new Timer(*loop, interval, repeat, Note(name));
    }
    Timer* AddTimer(int interval, bool repeat, const std::function<void()>& handler) {
        return new Timer(*loop, interval, repeat, handler);
    }

    // One iteration in which the slots get these results; returns what was fired.
    Journal Turn(const std::vector<int>& results = std::vector<int>()) {
        journal.clear();
        test::onPoll = [results](pollfd* slots, nfds_t count, int) {
            return test::Results(slots, count, results);
        };
        loop->Dispatch();
        return journal;
    }
    // One iteration in which every slot is readable.
    Journal TurnAllReady() { return Turn(std::vector<int>(64, POLLIN)); }

    int WaitOfTurn() {
        test::polls.clear();
        Turn();
        EXPECT_EQ(1u, test::polls.size());
        return test::polls.empty() ? -2 : test::polls[0].timeout;
    }
    double NowMs() const { return static_cast<double>(test::wallClock) / 1000.0; }
    void Advance(int milliseconds) { test::wallClock += 1000LL * milliseconds; }

    // Events still registered are deleted with the loop.
    std::unique_ptr<SR_MainLoop> loop{new SR_MainLoop};
    Journal journal;
};

// ---- the wait

TEST_F(MainLoopTest, WithoutTimersTheWaitIsTenSeconds) {
    EXPECT_EQ(10000, WaitOfTurn());
}

TEST_F(MainLoopTest, TheWaitIsTheSmallestIntervalOfAnEnabledTimer) {
    AddTimer(700, true, "a");
    AddTimer(250, true, "b");
    AddTimer(400, false, "c");
    EXPECT_EQ(250, WaitOfTurn());
}

TEST_F(MainLoopTest, ADisabledTimerDoesNotShortenTheWait) {
    AddTimer(100, true, "a")->Enable(false);
    EXPECT_EQ(10000, WaitOfTurn());
    AddTimer(300, true, "b");
    EXPECT_EQ(300, WaitOfTurn());
}

TEST_F(MainLoopTest, ATimerOfZeroMillisecondsMakesTheWaitReturnAtOnce) {
    AddTimer(0, true, "a");
    EXPECT_EQ(0, WaitOfTurn());
}

TEST_F(MainLoopTest, ALongTimerLeavesTheWaitAtTenSeconds) {
    AddTimer(20000, true, "a");
    EXPECT_EQ(10000, WaitOfTurn());
    AddTimer(10001, true, "b");
    EXPECT_EQ(10000, WaitOfTurn());
    AddTimer(9999, true, "c");
    EXPECT_EQ(9999, WaitOfTurn());
}

TEST_F(MainLoopTest, TheWaitIsTheWholeIntervalAndNotTheTimeLeft) {
    AddTimer(250, true, "a");
    Advance(200);
    EXPECT_EQ(250, WaitOfTurn());
    Advance(500);
    EXPECT_EQ(250, WaitOfTurn());
}

TEST_F(MainLoopTest, WithoutEnabledWatchesNothingIsPolled) {
    EXPECT_EQ(10000, WaitOfTurn());
    EXPECT_EQ(0u, test::polls[0].count);
    AddWatch(3, "a")->Enable(false);
    EXPECT_EQ(10000, WaitOfTurn());
    EXPECT_EQ(0u, test::polls[0].count);
}

TEST_F(MainLoopTest, EveryEnabledWatchHasASlotInRegistrationOrder) {
    AddWatch(9, "a")->SetFlags(POLLOUT | POLLERR);
    AddWatch(4, "b")->Enable(false);
    AddWatch(7, "c");
    AddWatch(9, "d");
    Turn();
    ASSERT_EQ(1u, test::polls.size());
    ASSERT_EQ(3u, test::polls[0].count);
    const std::vector<pollfd>& slots = test::polls[0].slots;
    EXPECT_EQ(9, slots[0].fd);
    EXPECT_EQ(POLLOUT | POLLERR, slots[0].events);
    EXPECT_EQ(7, slots[1].fd);
    EXPECT_EQ(POLLIN, slots[1].events);
    EXPECT_EQ(9, slots[2].fd);
    for (const pollfd& slot : slots) {
        EXPECT_EQ(0, slot.revents);
    }
}

TEST_F(MainLoopTest, AnInterruptedWaitIsAnOrdinaryReturn) {
    AddWatch(3, "watch");
    AddTimer(0, true, "timer");
    test::onPoll = [](pollfd*, nfds_t, int) {
        errno = EINTR;
        return -1;
    };
    loop->Dispatch();
    EXPECT_EQ((Journal{"timer"}), journal);
    EXPECT_EQ(1u, test::polls.size()) << "the wait is not repeated";
}

TEST_F(MainLoopTest, TheResultOfTheWaitIsNotLookedAt) {
    AddWatch(3, "watch");
    for (const int answer : {-1, 0, 1, 99}) {
        journal.clear();
        test::onPoll = [answer](pollfd* slots, nfds_t count, int) {
            (void)test::Results(slots, count, {POLLIN});
            return answer;
        };
        loop->Dispatch();
        EXPECT_EQ((Journal{"watch"}), journal) << answer;
    }
}

TEST_F(MainLoopTest, TheClockIsReadOnceAfterTheWait) {
    AddTimer(1000, true, "a");
    AddTimer(1000, true, "b");
    test::clockReadings = 0;
    test::onPoll = [this](pollfd*, nfds_t, int) {
        EXPECT_EQ(0, test::clockReadings);
        Advance(1000);
        return 0;
    };
    loop->Dispatch();
    EXPECT_EQ(1, test::clockReadings);
    EXPECT_EQ((Journal{"a", "b"}), journal) << "the time is that after the wait";
}

TEST_F(MainLoopTest, AnIterationGoesOnWhenTheClockCannotBeRead) {
    AddWatch(3, "watch");
    AddTimer(250, true, "timer");
    Advance(250);
    test::clockFails = true;
    EXPECT_EQ((Journal{"watch"}), TurnAllReady()) << "without a time no timer is due";
    EXPECT_EQ(1u, test::polls.size());
    AddTimer(0, false, "made without a clock");
    EXPECT_EQ((Journal{"made without a clock", "watch"}), TurnAllReady());
    test::clockFails = false;
    EXPECT_EQ((Journal{"timer", "made without a clock", "watch"}), TurnAllReady());
}

// ---- timers

TEST_F(MainLoopTest, ATimeIsMilliseconds) {
    timeval time = {};
    EXPECT_EQ(0.0, SR_TimeoutEvent::msec(time));
    time.tv_sec = 2;
    time.tv_usec = 500;
    EXPECT_EQ(2000.5, SR_TimeoutEvent::msec(time));
    time.tv_sec = 1700000000;
    time.tv_usec = 999999;
    EXPECT_EQ(1700000000.0 * 1000.0 + 999.999, SR_TimeoutEvent::msec(time));
}

TEST_F(MainLoopTest, ATimerIsDueItsIntervalAfterItsMaking) {
    const Timer* timer = AddTimer(250, false, "a");
    EXPECT_EQ(NowMs() + 250, timer->Expiry());
    EXPECT_EQ(250, timer->GetInterval());
    EXPECT_TRUE(timer->Enabled());
    EXPECT_EQ(nullptr, timer->GetData());
}

TEST_F(MainLoopTest, ATimerFiresWhenItsExpiryEqualsTheClock) {
    AddTimer(250, true, "a");
    Advance(249);
    EXPECT_EQ(Journal(), Turn());
    test::wallClock += 999;
    EXPECT_EQ(Journal(), Turn());
    test::wallClock += 1;
    EXPECT_EQ((Journal{"a"}), Turn());
}

TEST_F(MainLoopTest, ARepeatingTimerIsDueAnIntervalAfterTheIterationsClock) {
    const Timer* timer = AddTimer(100, true, "a");
    Advance(130);
    EXPECT_EQ((Journal{"a"}), Turn());
    EXPECT_EQ(NowMs() + 100, timer->Expiry());
    EXPECT_EQ(Journal(), Turn());
    Advance(99);
    EXPECT_EQ(Journal(), Turn());
    Advance(1);
    EXPECT_EQ((Journal{"a"}), Turn());
}

TEST_F(MainLoopTest, MissedPeriodsAreNotMadeUpFor) {
    AddTimer(100, true, "a");
    Advance(1000);
    EXPECT_EQ((Journal{"a"}), Turn());
    EXPECT_EQ(Journal(), Turn());
}

TEST_F(MainLoopTest, TheTimeAHandlerTakesDoesNotCount) {
    const double start = NowMs();
    const Timer* first = AddTimer(100, true, [this] { Advance(5000); });
    AddTimer(200, true, "late");
    Advance(100);
    EXPECT_EQ(Journal(), Turn()) << "not due by the clock of this iteration";
    EXPECT_EQ(start + 200, first->Expiry());
}

TEST_F(MainLoopTest, AOneShotTimerThatStaysEnabledFiresInEveryIteration) {
    Timer* timer = AddTimer(100, false, "a");
    const double expiry = timer->Expiry();
    Advance(100);
    EXPECT_EQ((Journal{"a"}), Turn());
    EXPECT_EQ((Journal{"a"}), Turn());
    EXPECT_EQ(expiry, timer->Expiry());
    timer->Enable(false);
    EXPECT_EQ(Journal(), Turn());
    timer->Enable(true);
    EXPECT_EQ((Journal{"a"}), Turn());
    delete timer;
    EXPECT_EQ(Journal(), Turn());
}

TEST_F(MainLoopTest, TimersFollowTheWallClockBackwards) {
    AddTimer(100, true, "a");
    Advance(-1000);
    EXPECT_EQ(Journal(), Turn());
    Advance(1100);
    EXPECT_EQ((Journal{"a"}), Turn());
}

TEST_F(MainLoopTest, TimersFireInRegistrationOrderWhateverTheirExpiry) {
    AddTimer(300, true, "a");
    AddTimer(100, true, "b");
    AddTimer(200, true, "c");
    Advance(300);
    EXPECT_EQ((Journal{"a", "b", "c"}), Turn());
}

TEST_F(MainLoopTest, TimersAreServedBeforeWatches) {
    AddWatch(3, "watch");
    AddTimer(0, true, "timer");
    EXPECT_EQ((Journal{"timer", "watch"}), TurnAllReady());
}

TEST_F(MainLoopTest, ATimerDisabledByAnEarlierHandlerDoesNotFire) {
    Timer* second = nullptr;
    AddTimer(0, true, [&] {
        journal.push_back("first");
        second->Enable(false);
    });
    second = AddTimer(0, true, "second");
    EXPECT_EQ((Journal{"first"}), Turn());
}

TEST_F(MainLoopTest, ATimerEnabledByAnEarlierHandlerFires) {
    Timer* second = nullptr;
    AddTimer(0, true, [&] { second->Enable(true); });
    second = AddTimer(0, true, "second");
    second->Enable(false);
    EXPECT_EQ((Journal{"second"}), Turn());
}

TEST_F(MainLoopTest, ATimerHandlerMayDestroyItsOwnTimer) {
    Timer* self = nullptr;
    self = AddTimer(0, true, [&] {
        journal.push_back("self");
        delete self;
    });
    AddTimer(0, true, "next");
    EXPECT_EQ((Journal{"self", "next"}), Turn());
    EXPECT_EQ((Journal{"next"}), Turn());
}

TEST_F(MainLoopTest, ATimerHandlerMayDestroyAnEarlierTimerAndTheNextOne) {
    Timer* before = AddTimer(0, true, "before");
    Timer* after = nullptr;
    AddTimer(0, true, [&] {
        journal.push_back("middle");
        delete before;
        delete after;
        before = after = nullptr;
    });
    after = AddTimer(0, true, "after");
    AddTimer(0, true, "last");
    EXPECT_EQ((Journal{"before", "middle", "last"}), Turn());
}

TEST_F(MainLoopTest, ATimerHandlerMayDestroyEveryTimer) {
    std::vector<Timer*> all;
    const auto destroyAll = [&] {
        journal.push_back("fired");
        for (const Timer* timer : all) {
            delete timer;
        }
        all.clear();
    };
    for (int i = 0; i < 3; ++i) {
        all.push_back(AddTimer(0, true, destroyAll));
    }
    EXPECT_EQ((Journal{"fired"}), Turn());
    EXPECT_EQ(Journal(), Turn());
}

TEST_F(MainLoopTest, ATimerCreatedByATimerHandlerWaitsForTheNextIteration) {
    AddTimer(0, true, [&] {
        if (journal.empty()) {
            AddTimer(0, false, "new");
        }
        journal.push_back("old");
    });
    EXPECT_EQ((Journal{"old"}), Turn());
    EXPECT_EQ((Journal{"old", "new"}), Turn());
}

TEST_F(MainLoopTest, ATimerThatReplacesItselfWaitsForTheNextIteration) {
    Timer* self = nullptr;
    self = AddTimer(0, true, [&] {
        delete self;
        self = AddTimer(0, true, "replacement");
        journal.push_back("original");
    });
    EXPECT_EQ((Journal{"original"}), Turn());
    EXPECT_EQ((Journal{"replacement"}), Turn());
}

TEST_F(MainLoopTest, ATimerHandlerMayCreateAndDestroyWatches) {
    Watch* doomed = AddWatch(3, "doomed");
    AddWatch(4, "kept");
    AddTimer(0, false, [&] {
        if (doomed != nullptr) {
            delete doomed;
            doomed = nullptr;
            AddWatch(3, "new");
        }
    });
    EXPECT_EQ((Journal{"kept"}), TurnAllReady());
    EXPECT_EQ((Journal{"kept", "new"}), TurnAllReady());
}

// ---- watches

TEST_F(MainLoopTest, AFreshWatchHasItsFieldsAsGiven) {
    const SR_WatchEvent* watch = new SR_WatchEvent(5, POLLOUT | POLLHUP, loop.get());
    EXPECT_EQ(5, watch->GetDescriptor());
    EXPECT_EQ(POLLOUT | POLLHUP, watch->GetFlags());
    EXPECT_EQ(0, watch->State());
    EXPECT_TRUE(watch->Enabled());
    EXPECT_EQ(nullptr, watch->GetData());
    delete watch;
}

TEST_F(MainLoopTest, TheUsersPointersAreKept) {
    int target = 0;
    Watch* watch = AddWatch(3, "w");
    Timer* timer = AddTimer(5, true, "t");
    watch->SetData(&target);
    timer->SetData(&target);
    EXPECT_EQ(&target, watch->GetData());
    EXPECT_EQ(&target, timer->GetData());
    watch->SetData(nullptr);
    EXPECT_EQ(nullptr, watch->GetData());
}

TEST_F(MainLoopTest, AReadyWatchFiresWithItsResultAsState) {
    int stateInHandler = -1;
    Watch* watch = nullptr;
    watch = AddWatch(3, [&] { stateInHandler = watch->State(); });
    Turn({POLLIN | POLLHUP});
    EXPECT_EQ(POLLIN | POLLHUP, stateInHandler);
    stateInHandler = -1;
    Turn({0});
    EXPECT_EQ(-1, stateInHandler) << "not fired";
    EXPECT_EQ(POLLIN | POLLHUP, watch->State()) << "the state is that of the last firing";
}

TEST_F(MainLoopTest, AnInvalidDescriptorAloneFiresTheWatch) {
    const Watch* watch = AddWatch(3, "a");
    EXPECT_EQ((Journal{"a"}), Turn({POLLNVAL}));
    EXPECT_EQ(POLLNVAL, watch->State());
}

TEST_F(MainLoopTest, OnlyReadyWatchesFireInSlotOrder) {
    AddWatch(3, "a");
    AddWatch(4, "b");
    AddWatch(5, "c");
    EXPECT_EQ((Journal{"a", "c"}), Turn({POLLIN, 0, POLLIN}));
    EXPECT_EQ((Journal{"b"}), Turn({0, POLLIN, 0}));
}

TEST_F(MainLoopTest, OfTwoWatchesOnADescriptorTheEarlierTakesTheResult) {
    const Watch* first = AddWatch(3, "first");
    const Watch* second = AddWatch(3, "second");
    EXPECT_EQ((Journal{"first"}), Turn({POLLIN, 0}));
    // Each slot has its own result, and each goes to the first.
    EXPECT_EQ((Journal{"first", "first"}), Turn({POLLIN, POLLHUP}));
    EXPECT_EQ(POLLHUP, first->State());
    EXPECT_EQ(0, second->State());
}

TEST_F(MainLoopTest, ADisabledDuplicateLeavesTheResultToTheLaterWatch) {
    AddWatch(3, "first")->Enable(false);
    AddWatch(3, "second");
    EXPECT_EQ((Journal{"second"}), Turn({POLLIN}));
}

TEST_F(MainLoopTest, ADisabledWatchIsNeitherPolledNorFired) {
    Watch* watch = AddWatch(3, "a");
    AddWatch(4, "b");
    watch->Enable(false);
    EXPECT_EQ((Journal{"b"}), TurnAllReady());
    EXPECT_EQ(1u, test::polls.back().count);
    watch->Enable(true);
    EXPECT_EQ((Journal{"a", "b"}), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchDisabledByAnEarlierHandlerDoesNotFire) {
    Watch* second = nullptr;
    AddWatch(3, [&] { second->Enable(false); });
    second = AddWatch(4, "second");
    EXPECT_EQ(Journal(), TurnAllReady());
    EXPECT_EQ(0, second->State());
}

TEST_F(MainLoopTest, AWatchDisabledByATimerHandlerDoesNotFire) {
    Watch* watch = AddWatch(3, "watch");
    AddTimer(0, true, [&] { watch->Enable(false); });
    EXPECT_EQ(Journal(), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchThatDisablesItselfLeavesTheNextResultToItsDuplicate) {
    Watch* first = nullptr;
    first = AddWatch(3, [&] {
        journal.push_back("first");
        first->Enable(false);
    });
    AddWatch(3, "second");
    EXPECT_EQ((Journal{"first", "second"}), Turn({POLLIN, POLLIN}));
}

TEST_F(MainLoopTest, AWatchHandlerMayDestroyItsOwnWatch) {
    Watch* self = nullptr;
    self = AddWatch(3, [&] {
        journal.push_back("self");
        delete self;
    });
    AddWatch(4, "next");
    EXPECT_EQ((Journal{"self", "next"}), TurnAllReady());
    EXPECT_EQ((Journal{"next"}), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchHandlerMayDestroyAnEarlierWatchAndTheNextOne) {
    Watch* before = AddWatch(3, "before");
    Watch* after = nullptr;
    AddWatch(4, [&] {
        journal.push_back("middle");
        delete before;
        delete after;
        before = after = nullptr;
    });
    after = AddWatch(5, "after");
    AddWatch(6, "last");
    EXPECT_EQ((Journal{"before", "middle", "last"}), TurnAllReady());
    EXPECT_EQ((Journal{"middle", "last"}), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchHandlerMayDestroyEveryWatch) {
    std::vector<Watch*> all;
    const auto destroyAll = [&] {
        journal.push_back("fired");
        for (const Watch* watch : all) {
            delete watch;
        }
        all.clear();
    };
    for (int i = 0; i < 3; ++i) {
        all.push_back(AddWatch(3 + i, destroyAll));
    }
    EXPECT_EQ((Journal{"fired"}), TurnAllReady());
    EXPECT_EQ(Journal(), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchThatReplacesItselfOnItsDescriptorWaitsForTheNextIteration) {
    Watch* self = nullptr;
    self = AddWatch(3, [&] {
        delete self;
        self = AddWatch(3, "replacement");
        journal.push_back("original");
    });
    EXPECT_EQ((Journal{"original"}), TurnAllReady());
    EXPECT_EQ((Journal{"replacement"}), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchHandlerMayCreateAndDestroyTimers) {
    Timer* doomed = AddTimer(500, true, "doomed");
    AddWatch(3, [&] {
        if (doomed != nullptr) {
            delete doomed;
            doomed = nullptr;
            AddTimer(0, true, "new");
        }
    });
    EXPECT_EQ(Journal(), TurnAllReady());
    Advance(500);
    EXPECT_EQ((Journal{"new"}), Turn());
}

TEST_F(MainLoopTest, AWatchCreatedDuringTheWaitWaitsForTheNextIteration) {
    Watch* old = AddWatch(3, "old");
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        old->Enable(false);
        AddWatch(3, "same descriptor");
        AddWatch(4, "other descriptor");
        return test::Results(slots, count, {POLLIN});
    };
    loop->Dispatch();
    EXPECT_EQ(Journal(), journal) << "the result is not for the newcomer";
    EXPECT_EQ((Journal{"same descriptor", "other descriptor"}), TurnAllReady());
}

TEST_F(MainLoopTest, AResultNeverReachesAWatchThatReusesTheDescriptor) {
    Watch* polled = AddWatch(3, "polled");
    Watch* reuser = nullptr;
    AddTimer(0, true, [&] {
        if (reuser == nullptr) {
            delete polled;
            reuser = AddWatch(3, "reuser");
        }
    });
    EXPECT_EQ(Journal(), TurnAllReady());
    EXPECT_EQ(0, reuser->State());
    EXPECT_EQ((Journal{"reuser"}), TurnAllReady());
}

TEST_F(MainLoopTest, AResultWhosePolledWatchLeftDuringTheWaitIsDropped) {
    Watch* polled = AddWatch(3, "polled");
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        delete polled;
        AddWatch(3, "reuser");
        return test::Results(slots, count, {POLLIN});
    };
    loop->Dispatch();
    EXPECT_EQ(Journal(), journal);
}

TEST_F(MainLoopTest, AWatchEnabledDuringTheWaitTakesTheResultOfItsDescriptor) {
    Watch* first = AddWatch(3, "first");
    first->Enable(false);
    AddWatch(3, "second");
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        first->Enable(true);
        return test::Results(slots, count, {POLLIN});
    };
    loop->Dispatch();
    EXPECT_EQ((Journal{"first"}), journal);
}

TEST_F(MainLoopTest, AWatchThatMovesToALaterDescriptorTakesItsResultToo) {
    Watch* mover = nullptr;
    mover = AddWatch(3, [&] {
        journal.push_back("mover on " + std::to_string(mover->GetDescriptor()));
        mover->MoveTo(5);
    });
    AddWatch(4, "second");
    AddWatch(5, "third");
    EXPECT_EQ((Journal{"mover on 3", "second", "mover on 5"}), Turn({POLLIN, POLLIN, POLLHUP}));
    EXPECT_EQ(POLLHUP, mover->State());
}

TEST_F(MainLoopTest, AWatchThatMovesAwayLeavesItsResultsToALaterOne) {
    Watch* mover = nullptr;
    mover = AddWatch(3, [&] {
        journal.push_back("mover");
        mover->MoveTo(7);
    });
    AddWatch(3, "second");
    EXPECT_EQ((Journal{"mover", "second"}), TurnAllReady());
}

TEST_F(MainLoopTest, AWatchThatTakesAnothersResultAndMovesTakesThatOfItsNewDescriptor) {
    Watch* mover = nullptr;
    mover = AddWatch(4, [&] {
        journal.push_back("mover on " + std::to_string(mover->GetDescriptor()));
        mover->MoveTo(5);
    });
    mover->Enable(false);
    AddWatch(3, [&] { mover->Enable(true); });
    AddWatch(4, "polled");
    AddWatch(5, "last");
    // The slots are of 3, 4 and 5; the mover had none.
    EXPECT_EQ((Journal{"mover on 4", "mover on 5"}), TurnAllReady());
}

// The handler of the watch on 4 runs an iteration of its own, in which 3 alone is ready and whose
// watch moves to 5.
class MovesInANestedIteration : public MainLoopTest {
protected:
    void Turn(const std::function<void()>& afterTheMove, const std::function<void()>& iteration) {
        bool nested = false;
        Watch* mover = nullptr;
        mover = AddWatch(3, [&] {
            journal.push_back("mover on " + std::to_string(mover->GetDescriptor()));
            if (nested) {
                mover->MoveTo(5);
                afterTheMove();
            }
        });
        Watch* nesting = nullptr;
        nesting = AddWatch(4, [&] {
            nested = true;
            nesting->Enable(false);
            test::onPoll = [](pollfd* slots, nfds_t count, int) {
                return test::Results(slots, count, {POLLIN, 0});
            };
            iteration();
            nested = false;
        });
        AddWatch(5, "last");
        EXPECT_EQ((Journal{"mover on 3", "mover on 3", "mover on 5"}), TurnAllReady());
    }
};

TEST_F(MovesInANestedIteration, TakesItsResultInTheOuterOne) {
    Turn([] {}, [this] { loop->Dispatch(); });
}

TEST_F(MovesInANestedIteration, TakesItsResultInTheOuterOneAlsoWhenItThrows) {
    Turn([] { throw std::string("out"); }, [this] { EXPECT_THROW(loop->Dispatch(), std::string); });
}

// ---- nesting, threads, the end

TEST_F(MainLoopTest, AHandlerMayRunAnIterationOfItsOwn) {
    AddTimer(1000, true, "timer");
    bool nested = false;
    Watch* first = nullptr;
    first = AddWatch(3, [&] {
        journal.push_back("first");
        if (!nested) {
            nested = true;
            first->Enable(false);
            loop->Dispatch();
            journal.push_back("back");
        }
    });
    AddWatch(4, "second");
    EXPECT_EQ((Journal{"first", "second", "back", "second"}), TurnAllReady());
    EXPECT_EQ(2u, test::polls.size());
}

TEST_F(MainLoopTest, AnEventDestroyedInANestedIterationIsNotReachedByTheOuterOne) {
    bool nested = false;
    Watch* second = nullptr;
    Timer* laterTimer = nullptr;
    AddTimer(0, true, [&] {
        journal.push_back("timer");
        if (!nested) {
            nested = true;
            loop->Dispatch();
        }
    });
    laterTimer = AddTimer(0, true, "later timer");
    AddWatch(3, [&] {
        journal.push_back("first");
        delete second;
        delete laterTimer;
        second = nullptr;
        laterTimer = nullptr;
    });
    second = AddWatch(4, "second");
    EXPECT_EQ((Journal{"timer", "timer", "later timer", "first", "first"}), TurnAllReady());
}

TEST_F(MainLoopTest, ATimerThatANestedIterationDestroysIsNotArmedAgain) {
    Timer* self = nullptr;
    bool nested = false;
    self = AddTimer(0, true, [&] {
        if (!nested) {
            nested = true;
            loop->Dispatch();
            journal.push_back("outer");
            return;
        }
        delete self;
        journal.push_back("inner");
    });
    EXPECT_EQ((Journal{"inner", "outer"}), Turn());
    EXPECT_EQ(Journal(), Turn());
}

TEST_F(MainLoopTest, OtherThreadsCreateAndDestroyEventsDuringTheWait) {
    Watch* doomedWatch = AddWatch(3, "doomed watch");
    Timer* doomedTimer = AddTimer(0, true, "doomed timer");
    AddWatch(4, "kept");
    bool finished = false;
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        std::packaged_task<void()> work([&] {
            delete doomedWatch;
            delete doomedTimer;
            AddWatch(5, "new watch");
            AddTimer(0, true, "new timer");
        });
        std::future<void> done = work.get_future();
        std::thread thread(std::move(work));
        // Would wait for ever if a lock were held here.
        finished = done.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        if (!finished) {
            ADD_FAILURE() << "a lock is held during the wait";
            std::abort();
        }
        thread.join();
        return test::Results(slots, count, {POLLIN, POLLIN});
    };
    loop->Dispatch();
    EXPECT_TRUE(finished);
    EXPECT_EQ((Journal{"new timer", "kept"}), journal);
    EXPECT_EQ((Journal{"new timer", "kept", "new watch"}), TurnAllReady());
}

TEST_F(MainLoopTest, TheLoopDeletesWhatIsRegisteredInOrderWatchesFirst) {
    AddTimer(1, true, "")->farewell = Note("timer 1");
    AddWatch(3, "")->farewell = Note("watch 1");
    AddTimer(1, true, "")->farewell = Note("timer 2");
    AddWatch(3, "")->farewell = Note("watch 2");
    AddWatch(4, "")->Enable(false);
    loop.reset();
    EXPECT_EQ((Journal{"watch 1", "watch 2", "timer 1", "timer 2"}), journal);
}

TEST_F(MainLoopTest, AnEventDeletedWithTheLoopMayTakeOthersAlong) {
    Watch* first = AddWatch(3, "");
    Watch* second = AddWatch(4, "");
    Watch* third = AddWatch(5, "");
    Timer* timer = AddTimer(1, true, "");
    first->farewell = [&] {
        journal.push_back("first");
        delete second;
        delete timer;
    };
    second->farewell = Note("second");
    third->farewell = Note("third");
    timer->farewell = Note("timer");
    loop.reset();
    EXPECT_EQ((Journal{"first", "second", "timer", "third"}), journal);
}

// A callback that destroys its event and then looks whether it still exists itself.
template <typename Event>
struct Destroying : sentrel::BaseCallback<void, Event&> {
    explicit Destroying(std::vector<bool>& seen) : alive(new bool(true)), lived(seen) {}
    ~Destroying() override { *alive = false; }
    void call(Event& event) const override {
        const std::shared_ptr<bool> kept = alive;
        std::vector<bool>& result = lived;
        delete &event;
        result.push_back(*kept);
    }
    std::shared_ptr<bool> alive;
    std::vector<bool>& lived;
};

struct OwnWatch : SR_WatchEvent {
    OwnWatch(int fd, SR_MainLoop* mainLoop, std::vector<bool>& lived)
        : SR_WatchEvent(fd, POLLIN, mainLoop) {
        callback = boost::make_shared<Destroying<SR_WatchEvent> >(lived);
    }
};

struct OwnTimer : SR_TimeoutEvent {
    OwnTimer(SR_MainLoop* mainLoop, std::vector<bool>& lived) : SR_TimeoutEvent(0, true, mainLoop) {
        callback = boost::make_shared<Destroying<SR_TimeoutEvent> >(lived);
    }
};

TEST_F(MainLoopTest, ACallbackOutlivesTheEventThatItDestroys) {
    std::vector<bool> lived;
    new OwnTimer(loop.get(), lived);
    new OwnWatch(3, loop.get(), lived);
    TurnAllReady();
    EXPECT_EQ((std::vector<bool>{true, true}), lived);
}

TEST_F(MainLoopTest, AnEventRegisteredWhileTheLoopIsDestroyedIsDeletedToo) {
    struct Last : SR_WatchEvent {
        Last(SR_MainLoop* mainLoop, int& count) : SR_WatchEvent(3, 0, mainLoop), deleted(count) {}
        ~Last() override { ++deleted; }
        int& deleted;
    };
    struct Parent : SR_WatchEvent {
        Parent(SR_MainLoop* mainLoop, int& count) : SR_WatchEvent(3, 0, mainLoop), deleted(count) {}
        ~Parent() override { new Last(loop, deleted); }
        int& deleted;
    };
    int deleted = 0;
    new Parent(loop.get(), deleted);
    loop.reset();
    EXPECT_EQ(1, deleted);
}

TEST_F(MainLoopTest, AnEventDestroyedEarlyIsNotDeletedAgain) {
    Watch* watch = AddWatch(3, "");
    Timer* timer = AddTimer(1, true, "");
    watch->farewell = Note("watch");
    timer->farewell = Note("timer");
    delete timer;
    delete watch;
    loop.reset();
    EXPECT_EQ((Journal{"timer", "watch"}), journal);
}

TEST_F(MainLoopTest, TwoLoopsKeepTheirEventsApart) {
    SR_MainLoop other;
    AddWatch(3, "mine");
    Watch theirs(other, 3, Note("theirs"));
    EXPECT_EQ((Journal{"mine"}), TurnAllReady());
    journal.clear();
    other.Dispatch();
    EXPECT_EQ((Journal{"theirs"}), journal);
}

TEST_F(MainLoopTest, AHandlersExceptionLeavesTheLoopUsable) {
    bool thrown = false;
    AddTimer(0, true, [&] {
        if (!thrown) {
            thrown = true;
            throw std::string("out");
        }
        journal.push_back("timer");
    });
    AddWatch(3, "watch");
    EXPECT_THROW(TurnAllReady(), std::string);
    EXPECT_EQ((Journal{"timer", "watch"}), TurnAllReady());
}

// ---- the mutex

pthread_mutex_t* Native(SR_DBusMutex& mutex) {
    static_assert(sizeof(SR_DBusMutex) == sizeof(pthread_mutex_t), "nothing beside it");
    return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

int TryLockOnAnotherThread(SR_DBusMutex& mutex) {
    int result = -1;
    std::thread thread([&] {
        result = pthread_mutex_trylock(Native(mutex));
        if (result == 0) {
            pthread_mutex_unlock(Native(mutex));
        }
    });
    thread.join();
    return result;
}

TEST(MutexTest, APlainMutexCannotBeLockedTwice) {
    SR_DBusMutex byDefault;
    SR_DBusMutex byFalse(false);
    for (SR_DBusMutex* mutex : {&byDefault, &byFalse}) {
        mutex->Lock();
        EXPECT_EQ(EBUSY, pthread_mutex_trylock(Native(*mutex)));
        EXPECT_EQ(EBUSY, TryLockOnAnotherThread(*mutex));
        mutex->Unlock();
        EXPECT_EQ(0, TryLockOnAnotherThread(*mutex));
    }
}

// Twice at once is beyond what the lock annotations can say.
void LockAgain(SR_DBusMutex& mutex) SR_THREAD_ANNOTATION(no_thread_safety_analysis);
void UnlockOnce(SR_DBusMutex& mutex) SR_THREAD_ANNOTATION(no_thread_safety_analysis);

void LockAgain(SR_DBusMutex& mutex) {
    mutex.Lock();
}
void UnlockOnce(SR_DBusMutex& mutex) {
    mutex.Unlock();
}

TEST(MutexTest, ARecursiveMutexIsFreeWhenUnlockedAsOftenAsLocked) {
    SR_DBusMutex mutex(true);
    LockAgain(mutex);
    LockAgain(mutex);
    EXPECT_EQ(EBUSY, TryLockOnAnotherThread(mutex));
    UnlockOnce(mutex);
    EXPECT_EQ(EBUSY, TryLockOnAnotherThread(mutex));
    UnlockOnce(mutex);
    EXPECT_EQ(0, TryLockOnAnotherThread(mutex));
}

}  // namespace
