// SPDX-License-Identifier: Apache-2.0
// The dispatcher: libdbus's watches and timeouts as events of the loop, the queue of connections,
// and the run loop; on watches, timeouts, connections, results and a clock that the tests make.
#include "SR_DBusDispatcher.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Access.h"
#include "FakeBus.h"
#include "FakePoll.h"
#include "LogRecorder.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcherImpl.h"
#include "SR_DBusTimeout.h"
#include "SR_DBusWatch.h"

namespace {

using sentrel::SR_DBusConnection;
using sentrel::SR_DBusDispatcher;
using sentrel::SR_DBusTimeout;
using sentrel::SR_DBusWatch;
using test::bus;
using test::FakeConnection;
using test::FakeTimeout;
using test::FakeWatch;

typedef std::vector<std::string> Lines;
typedef SR_DBusDispatcher::Impl Bridge;
typedef SR_DBusConnection::Impl Connection;

// Runs at each lock (true) and unlock (false), before a lock is waited for; null: not at all. Set
// and emptied while one thread runs.
std::function<void(bool lock, pthread_mutex_t* mutex)> onMutex;

pthread_mutex_t* Native(sentrel::SR_DBusMutex& mutex) {
    static_assert(sizeof(mutex) == sizeof(pthread_mutex_t), "nothing beside it");
    return reinterpret_cast<pthread_mutex_t*>(&mutex);
}

}  // namespace

namespace test {

struct QueueMutex {
    typedef sentrel::SR_DBusMutex SR_DBusDispatcher::*Type;
    friend Type MemberOf(QueueMutex);
};
template struct Opened<QueueMutex, &SR_DBusDispatcher::queueMutex>;

struct DispatchMutex {
    typedef sentrel::SR_DBusMutex SR_DBusDispatcher::*Type;
    friend Type MemberOf(DispatchMutex);
};
template struct Opened<DispatchMutex, &SR_DBusDispatcher::dispatchMutex>;

}  // namespace test

extern "C" {

// The linker leads the program's and the library's calls here.
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (onMutex) {
        onMutex(true, mutex);
    }
    return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (onMutex) {
        onMutex(false, mutex);
    }
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"

namespace {

class DispatcherTest : public testing::Test {
protected:
    DispatcherTest() {
        bus.Reset();
        test::ResetPoll();
        dispatcher.reset(new SR_DBusDispatcher);
        test::TakeLog();
    }
    ~DispatcherTest() override {
        connections.clear();
        dispatcher.reset();
        EXPECT_TRUE(bus.Balanced());
        bus.Reset();
        test::ResetPoll();
    }

    // Has the dispatcher serve the watch; returns the adapter.
    SR_DBusWatch* Add(FakeWatch& watch) {
        EXPECT_EQ(TRUE, static_cast<int>(Bridge::AddWatch(watch.Get(), dispatcher.get())));
        return static_cast<SR_DBusWatch*>(watch.data);
    }
    SR_DBusTimeout* Add(FakeTimeout& timeout) {
        EXPECT_EQ(TRUE, static_cast<int>(Bridge::AddTimeout(timeout.Get(), dispatcher.get())));
        return static_cast<SR_DBusTimeout*>(timeout.data);
    }
    void Turn(const std::vector<int>& results = std::vector<int>()) {
        test::onPoll = [results](pollfd* slots, nfds_t count, int) {
            return test::Results(slots, count, results);
        };
        dispatcher->Dispatch();
    }
    void Advance(int milliseconds) { test::wallClock += 1000LL * milliseconds; }

    // A connection that says `left` times that data remains, and notes each step as its name.
    Connection* Open(const std::string& name, int left) {
        connections.push_back(boost::make_shared<Connection>(DBUS_BUS_SYSTEM));
        dbus_connection_unref(connections.back()->connection);  // the first handle's
        connections.back()->dispatcher = dispatcher.get();
        auto remaining = std::make_shared<int>(left);
        bus.connections.back().dispatch = [this, name, remaining] {
            steps.push_back(name);
            if (onStep) {
                onStep(name);
            }
            return --*remaining >= 0 ? DBUS_DISPATCH_DATA_REMAINS : DBUS_DISPATCH_COMPLETE;
        };
        return connections.back().get();
    }

    std::unique_ptr<SR_DBusDispatcher> dispatcher;
    std::vector<boost::shared_ptr<Connection> > connections;
    std::function<void(const std::string&)> onStep;
    Lines steps;
};

// ---- watches

TEST_F(DispatcherTest, WatchFlagsBecomeThePollMask) {
    const struct {
        unsigned flags;
        int mask;
    } table[] = {{0, 0x18},
                 {DBUS_WATCH_READABLE, 0x19},
                 {DBUS_WATCH_WRITABLE, 0x1C},
                 {DBUS_WATCH_READABLE | DBUS_WATCH_WRITABLE, 0x1D}};
    for (const auto& row : table) {
        FakeWatch watch;
        watch.flags = row.flags;
        EXPECT_EQ(row.mask, Add(watch)->GetFlags()) << row.flags;
        Bridge::RemoveWatch(watch.Get(), dispatcher.get());
    }
}

TEST_F(DispatcherTest, PollResultsBecomeWatchConditions) {
    FakeWatch watch;
    watch.fd = 5;
    Add(watch);
    const struct {
        int result;
        unsigned condition;
    } bits[] = {{POLLIN, DBUS_WATCH_READABLE},
                {POLLOUT, DBUS_WATCH_WRITABLE},
                {POLLHUP, DBUS_WATCH_HANGUP},
                {POLLERR, DBUS_WATCH_ERROR},
                {POLLPRI, 0},
                {POLLNVAL, 0}};
    // Every combination of the bits.
    for (int choice = 1; choice < 1 << 6; ++choice) {
        int result = 0;
        unsigned conditions = 0;
        for (int bit = 0; bit < 6; ++bit) {
            if ((choice & (1 << bit)) != 0) {
                result |= bits[bit].result;
                conditions |= bits[bit].condition;
            }
        }
        watch.handled.clear();
        Turn({result});
        EXPECT_EQ((std::vector<unsigned>{conditions}), watch.handled) << result;
    }
}

TEST_F(DispatcherTest, AnInvalidDescriptorAloneIsHandledWithoutConditions) {
    FakeWatch watch;
    watch.fd = 5;
    Add(watch);
    Turn({POLLNVAL});
    EXPECT_EQ((std::vector<unsigned>{0}), watch.handled);
}

TEST_F(DispatcherTest, AWatchAdapterTakesItsFieldsFromLibdbus) {
    for (const bool enabled : {true, false}) {
        FakeWatch watch;
        watch.fd = 17;
        watch.enabled = enabled;
        SR_DBusWatch* adapter = Add(watch);
        ASSERT_NE(nullptr, adapter);
        EXPECT_EQ(17, adapter->GetDescriptor());
        EXPECT_EQ(enabled, adapter->Enabled());
        EXPECT_EQ(adapter, adapter->GetData());
        EXPECT_EQ(0, adapter->State());
        Turn({POLLIN});
        EXPECT_EQ(enabled ? 1u : 0u, watch.handled.size());
        Bridge::RemoveWatch(watch.Get(), dispatcher.get());
    }
}

TEST_F(DispatcherTest, TheResultOfHandlingIsReturnedAndByTheLoopIgnored) {
    FakeWatch watch;
    SR_DBusWatch* adapter = Add(watch);
    EXPECT_TRUE(adapter->Handle(3));
    watch.answer = false;
    EXPECT_FALSE(adapter->Handle(8));
    EXPECT_EQ((std::vector<unsigned>{3, 8}), watch.handled);
    Turn({POLLIN});
    EXPECT_EQ(3u, watch.handled.size());
    EXPECT_TRUE(adapter->Enabled());
    FakeTimeout timeout;
    SR_DBusTimeout* timer = Add(timeout);
    EXPECT_TRUE(timer->Handle());
    timeout.answer = false;
    EXPECT_FALSE(timer->Handle());
}

TEST_F(DispatcherTest, AToggledWatchFollowsLibdbusAndLogs) {
    FakeWatch watch;
    watch.fd = 5;
    watch.flags = DBUS_WATCH_READABLE;
    const SR_DBusWatch* adapter = Add(watch);
    std::stringstream address;
    address << adapter;
    watch.enabled = false;
    watch.fd = 6;
    watch.flags = DBUS_WATCH_WRITABLE;
    Bridge::ToggleWatch(watch.Get(), dispatcher.get());
    EXPECT_FALSE(adapter->Enabled());
    watch.enabled = true;
    Bridge::ToggleWatch(watch.Get(), dispatcher.get());
    EXPECT_TRUE(adapter->Enabled());
    EXPECT_EQ(5, adapter->GetDescriptor()) << "not read again";
    EXPECT_EQ(0x19, adapter->GetFlags()) << "not read again";
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("Watch " + address.str() + " toggled (off)", lines[0].Body());
    EXPECT_EQ("Watch " + address.str() + " toggled (on)", lines[1].Body());
    EXPECT_EQ("Toggle", lines[0].Function());
    EXPECT_EQ("SR_DBusWatch.cpp", lines[0].File());
    EXPECT_EQ(3, lines[0].priority);
}

TEST_F(DispatcherTest, ARemovedWatchLeavesTheLoopAndKeepsItsUserData) {
    FakeWatch watch;
    const void* adapter = Add(watch);
    Bridge::RemoveWatch(watch.Get(), dispatcher.get());
    EXPECT_EQ(adapter, watch.data);
    Turn();
    EXPECT_EQ(0u, test::polls.back().count);
}

TEST_F(DispatcherTest, RemovingWhatHasNoUserDataDoesNothing) {
    FakeWatch kept;
    Add(kept);
    FakeWatch watch;
    FakeTimeout timeout;
    Bridge::RemoveWatch(watch.Get(), dispatcher.get());
    Bridge::RemoveTimeout(timeout.Get(), dispatcher.get());
    Turn();
    EXPECT_EQ(1u, test::polls.back().count);
}

TEST_F(DispatcherTest, LibdbusMayChangeItsWatchesFromInsideAHandler) {
    FakeWatch first;
    FakeWatch second;
    FakeWatch third;
    first.fd = 5;
    second.fd = 6;
    third.fd = 7;
    Add(first);
    Add(second);
    first.onHandle = [&] {
        first.onHandle = nullptr;
        Bridge::RemoveWatch(first.Get(), dispatcher.get());
        second.enabled = false;
        Bridge::ToggleWatch(second.Get(), dispatcher.get());
        Add(third);
    };
    Turn({POLLIN, POLLIN});
    EXPECT_EQ(1u, first.handled.size());
    EXPECT_TRUE(second.handled.empty());
    EXPECT_TRUE(third.handled.empty());
    Turn({POLLIN});
    EXPECT_EQ(1u, third.handled.size());
}

// ---- timeouts

TEST_F(DispatcherTest, ATimeoutAdapterIsArmedAndRepeats) {
    FakeTimeout timeout;
    timeout.interval = 300;
    SR_DBusTimeout* adapter = Add(timeout);
    EXPECT_EQ(300, adapter->GetInterval());
    EXPECT_TRUE(adapter->Enabled());
    EXPECT_EQ(adapter, adapter->GetData());
    Advance(299);
    Turn();
    EXPECT_EQ(300, test::polls.back().timeout);
    EXPECT_EQ(0, timeout.handled);
    for (int fired = 1; fired <= 3; ++fired) {
        Advance(300);
        Turn();
        EXPECT_EQ(fired, timeout.handled);
        Turn();
        EXPECT_EQ(fired, timeout.handled);
    }
}

TEST_F(DispatcherTest, ADisabledTimeoutNeitherFiresNorShortensTheWait) {
    FakeTimeout timeout;
    timeout.interval = 300;
    timeout.enabled = false;
    EXPECT_FALSE(Add(timeout)->Enabled());
    Advance(1000);
    Turn();
    EXPECT_EQ(10000, test::polls.back().timeout);
    EXPECT_EQ(0, timeout.handled);
}

TEST_F(DispatcherTest, AToggledTimeoutFollowsLibdbusAndIsNotArmedAnew) {
    FakeTimeout timeout;
    timeout.interval = 300;
    const SR_DBusTimeout* adapter = Add(timeout);
    std::stringstream address;
    address << adapter;
    timeout.enabled = false;
    timeout.interval = 5;
    Bridge::ToggleTimeout(timeout.Get(), dispatcher.get());
    EXPECT_FALSE(adapter->Enabled());
    Advance(1000);
    Turn();
    EXPECT_EQ(0, timeout.handled);
    timeout.enabled = true;
    Bridge::ToggleTimeout(timeout.Get(), dispatcher.get());
    EXPECT_EQ(300, adapter->GetInterval()) << "not read again";
    Turn();
    EXPECT_EQ(1, timeout.handled) << "its old expiry has passed";
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("Timeout " + address.str() + " toggled (off)", lines[0].Body());
    EXPECT_EQ("Timeout " + address.str() + " toggled (on)", lines[1].Body());
    for (const test::LogLine& line : lines) {
        EXPECT_EQ("Toggle", line.Function());
        EXPECT_EQ("SR_DBusTimeout.cpp", line.File());
        EXPECT_EQ(3, line.priority);
    }
}

TEST_F(DispatcherTest, LibdbusMayChangeItsTimeoutsFromInsideAHandler) {
    FakeTimeout first;
    FakeTimeout second;
    FakeTimeout third;
    Add(first);
    Add(second);
    first.onHandle = [&] {
        Bridge::RemoveTimeout(first.Get(), dispatcher.get());
        Bridge::RemoveTimeout(second.Get(), dispatcher.get());
        Add(third);
    };
    Turn();
    EXPECT_EQ(1, first.handled);
    EXPECT_EQ(0, second.handled);
    EXPECT_EQ(0, third.handled);
    Turn();
    EXPECT_EQ(1, first.handled);
    EXPECT_EQ(1, third.handled);
}

// ---- the queue

TEST_F(DispatcherTest, AnIdleDispatcherLogsItsMakingAndItsEnd) {
    test::TakeLog();
    std::stringstream address;
    {
        const SR_DBusDispatcher idle;
        address << &idle;
    }
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("create new dispatcher addr: " + address.str(), lines[0].Body());
    EXPECT_EQ("SR_DBusDispatcher", lines[0].Function());
    EXPECT_EQ("destroy dispatcher addr: " + address.str(), lines[1].Body());
    EXPECT_EQ("~SR_DBusDispatcher", lines[1].Function());
    for (const test::LogLine& line : lines) {
        EXPECT_EQ(3, line.priority);
        EXPECT_EQ("SR_DBusDispatcher.cpp", line.File());
    }
}

TEST_F(DispatcherTest, TheEndDiscardsWhatIsQueued) {
    dispatcher->AddToQueue(Open("a", 0));
    dispatcher.reset();
    EXPECT_EQ(Lines(), steps);
}

TEST_F(DispatcherTest, TheEndDeletesTheAdaptersThatAreLeft) {
    struct NotedWatch : SR_DBusWatch {
        NotedWatch(FakeWatch& watched, SR_DBusDispatcher* owner, Lines& journal)
            : SR_DBusWatch(watched.Get(), owner), deleted(journal) {}
        ~NotedWatch() override { deleted.push_back("watch"); }
        Lines& deleted;
    };
    struct NotedTimeout : SR_DBusTimeout {
        NotedTimeout(FakeTimeout& served, SR_DBusDispatcher* owner, Lines& journal)
            : SR_DBusTimeout(served.Get(), owner), deleted(journal) {}
        ~NotedTimeout() override { deleted.push_back("timeout"); }
        Lines& deleted;
    };
    FakeWatch watch;
    FakeTimeout timeout;
    new NotedTimeout(timeout, dispatcher.get(), steps);
    new NotedWatch(watch, dispatcher.get(), steps);
    dispatcher.reset();
    EXPECT_EQ((Lines{"watch", "timeout"}), steps);
}

TEST_F(DispatcherTest, AnEmptyQueueCostsOneLockOfTheQueueAndDispatchesNothing) {
    Open("a", 0);  // not queued
    std::vector<std::pair<bool, pthread_mutex_t*> > seen;
    onMutex = [&seen](bool lock, pthread_mutex_t* mutex) { seen.emplace_back(lock, mutex); };
    dispatcher->DispatchPending();
    onMutex = nullptr;
    pthread_mutex_t* const queue = Native((*dispatcher).*MemberOf(test::QueueMutex()));
    EXPECT_EQ((std::vector<std::pair<bool, pthread_mutex_t*> >{{true, queue}, {false, queue}}),
              seen);
    std::list<Connection*> none;
    dispatcher->DispatchPending(none);
    EXPECT_EQ(Lines(), steps);
}

TEST_F(DispatcherTest, ADrainEmptiesTheQueue) {
    dispatcher->AddToQueue(Open("a", 0));
    dispatcher->DispatchPending();
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a"}), steps);
}

TEST_F(DispatcherTest, ConnectionsTakeTurnsUntilNoneHasDataLeft) {
    dispatcher->AddToQueue(Open("a", 2));
    dispatcher->AddToQueue(Open("b", 0));
    dispatcher->AddToQueue(Open("c", 1));
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "b", "c", "a", "c", "a"}), steps);
}

TEST_F(DispatcherTest, AConnectionQueuedTwiceIsDispatchedInBothPlaces) {
    Connection* a = Open("a", 0);
    Connection* b = Open("b", 0);
    dispatcher->AddToQueue(a);
    dispatcher->AddToQueue(b);
    dispatcher->AddToQueue(a);
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "b", "a"}), steps);
}

TEST_F(DispatcherTest, AConnectionThatQueuesItselfWaitsForTheNextPassOfTheDrain) {
    Connection* a = Open("a", 0);
    Connection* b = Open("b", 0);
    bool again = true;
    onStep = [&](const std::string& name) {
        if (name == "a" && again) {
            again = false;
            dispatcher->AddToQueue(a);
            steps.push_back("queued");
        }
    };
    dispatcher->AddToQueue(a);
    dispatcher->AddToQueue(b);
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "queued", "b", "a"}), steps);
}

TEST_F(DispatcherTest, WhatIsQueuedWhileTheQueueIsDrainedIsNotLost) {
    Connection* c = Open("c", 0);
    onStep = [&](const std::string& name) {
        if (name == "a") {
            dispatcher->AddToQueue(c);
        }
    };
    dispatcher->AddToQueue(Open("a", 0));
    dispatcher->AddToQueue(Open("b", 0));
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "b", "c"}), steps);
    EXPECT_TRUE(test::QueueOf(*dispatcher).empty());
}

TEST_F(DispatcherTest, AQueueThatGotShorterWhileItWasDrainedEndsTheDrain) {
    onStep = [&](const std::string& name) {
        if (name == "a") {
            test::QueueOf(*dispatcher).clear();
        }
    };
    dispatcher->AddToQueue(Open("a", 0));
    dispatcher->AddToQueue(Open("b", 0));
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "b"}), steps) << "the snapshot is dispatched all the same";
    EXPECT_TRUE(test::QueueOf(*dispatcher).empty());
}

TEST_F(DispatcherTest, AGivenListIsEmptiedAndTheQueueLeftAlone) {
    Connection* a = Open("a", 1);
    Connection* b = Open("b", 0);
    dispatcher->AddToQueue(b);
    std::list<Connection*> list = {a, a};
    dispatcher->DispatchPending(list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ((Lines{"a", "a", "a"}), steps);
    steps.clear();
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"b"}), steps);
}

TEST_F(DispatcherTest, ManyThreadsMayQueue) {
    Connection* a = Open("a", 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                dispatcher->AddToQueue(a);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    dispatcher->DispatchPending();
    EXPECT_EQ(1000u, steps.size());
}

// The first thread that dispatches waits inside until the second one asks for the lock, or gets in.
TEST_F(DispatcherTest, TwoThreadsThatDrainAtOnceDispatchOneAfterTheOther) {
    pthread_mutex_t* const mutex = Native((*dispatcher).*MemberOf(test::DispatchMutex()));
    std::atomic<int> asked(0);
    std::atomic<int> entered(0);
    std::atomic<int> inside(0);
    std::atomic<int> together(0);
    std::promise<void> second;
    std::future<void> secondIsThere = second.get_future();
    std::atomic_flag told = ATOMIC_FLAG_INIT;
    const auto tell = [&] {
        if (!told.test_and_set()) {
            second.set_value();
        }
    };
    onMutex = [&](bool lock, pthread_mutex_t* taken) {
        if (lock && taken == mutex && ++asked == 2) {
            tell();
        }
    };
    const auto dispatch = [&] {
        together += ++inside > 1;
        const int held = pthread_mutex_trylock(mutex);
        EXPECT_EQ(EBUSY, held) << "not held while a connection is dispatched";
        if (held == 0) {
            pthread_mutex_unlock(mutex);
        }
        if (++entered == 1) {
            EXPECT_EQ(std::future_status::ready, secondIsThere.wait_for(std::chrono::seconds(20)));
        } else {
            tell();
        }
        --inside;
        return DBUS_DISPATCH_COMPLETE;
    };
    std::vector<std::thread> threads;
    std::list<Connection*> lists[2];
    for (std::list<Connection*>& list : lists) {
        list.push_back(Open("", 0));
        bus.connections.back().dispatch = dispatch;
    }
    for (std::list<Connection*>& list : lists) {
        threads.emplace_back([&] { dispatcher->DispatchPending(list); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    onMutex = nullptr;
    EXPECT_EQ(2, entered);
    EXPECT_EQ(0, together);
}

// ---- the run loop

TEST_F(DispatcherTest, ATurnDrainsTheQueueThenWaitsThenServesTimersThenWatches) {
    FakeWatch watch;
    watch.fd = 5;
    watch.onHandle = [&] { steps.push_back("watch"); };
    FakeTimeout timeout;
    timeout.onHandle = [&] { steps.push_back("timeout"); };
    Add(watch);
    Add(timeout);
    dispatcher->AddToQueue(Open("connection", 0));
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        steps.push_back("wait");
        dispatcher->Leave();
        return test::Results(slots, count, {POLLIN});
    };
    dispatcher->Enter();
    EXPECT_EQ((Lines{"connection", "wait", "timeout", "watch"}), steps);
}

TEST_F(DispatcherTest, AtLeastOneTurnIsRunAndEnteringAgainRunsAgain) {
    int turns = 0;
    test::onPoll = [&](pollfd*, nfds_t, int) {
        ++turns;
        if (turns % 3 == 0) {
            dispatcher->Leave();
        }
        return 0;
    };
    dispatcher->Leave();  // before Enter() it means nothing
    dispatcher->Enter();
    EXPECT_EQ(3, turns);
    dispatcher->Enter();
    EXPECT_EQ(6, turns);
}

TEST_F(DispatcherTest, LeavingFromAHandlerEndsTheLoopAfterTheTurn) {
    FakeWatch first;
    FakeWatch second;
    first.fd = 5;
    second.fd = 6;
    first.onHandle = [&] { dispatcher->Leave(); };
    Add(first);
    Add(second);
    test::onPoll = [](pollfd* slots, nfds_t count, int) {
        return test::Results(slots, count, {POLLIN, POLLIN});
    };
    dispatcher->Enter();
    EXPECT_EQ(1u, first.handled.size());
    EXPECT_EQ(1u, second.handled.size()) << "the turn is ended";
    EXPECT_EQ(1u, test::polls.size());
}

TEST_F(DispatcherTest, AConnectionQueuedByAWatchIsDispatchedInTheNextTurn) {
    Connection* a = Open("a", 0);
    FakeWatch watch;
    watch.fd = 5;
    watch.onHandle = [&] {
        steps.push_back("watch");
        Connection::GetDispatchStatus_stub(a->connection, DBUS_DISPATCH_DATA_REMAINS, a);
    };
    Add(watch);
    test::onPoll = [&](pollfd* slots, nfds_t count, int) {
        steps.push_back("wait");
        if (test::polls.size() == 2) {
            dispatcher->Leave();
            return 0;
        }
        return test::Results(slots, count, {POLLIN});
    };
    dispatcher->Enter();
    EXPECT_EQ((Lines{"wait", "watch", "a", "wait"}), steps);
}

// ---- the connection's half

class DispatchTest : public DispatcherTest {};

TEST_F(DispatchTest, AStatusWithoutADispatcherIsLoggedOnly) {
    Connection* connection = Open("a", 0);
    test::TakeLog();
    for (const DBusDispatchStatus status :
         {DBUS_DISPATCH_DATA_REMAINS, DBUS_DISPATCH_COMPLETE, DBUS_DISPATCH_NEED_MEMORY}) {
        Connection::GetDispatchStatus_stub(connection->connection, status, nullptr);
        connection->dispatcher = nullptr;
        Connection::GetDispatchStatus_stub(connection->connection, status, connection);
        connection->dispatcher = dispatcher.get();
        const std::vector<test::LogLine> lines = test::TakeLog();
        ASSERT_EQ(2u, lines.size());
        for (const test::LogLine& line : lines) {
            EXPECT_EQ("P-dispather == 0 !!!", line.Body());
            EXPECT_EQ("GetDispatchStatus_stub", line.Function());
            EXPECT_EQ("SR_DBusConnection.cpp", line.File());
            EXPECT_EQ(99, line.Line());
            EXPECT_EQ(3, line.priority);
        }
    }
    dispatcher->DispatchPending();
    EXPECT_EQ(Lines(), steps) << "nothing was queued";
}

TEST_F(DispatchTest, EachStatusThatDataRemainsQueuesTheConnectionOnce) {
    Connection* connection = Open("a", 0);
    test::TakeLog();
    for (int i = 0; i < 2; ++i) {
        Connection::GetDispatchStatus_stub(connection->connection, DBUS_DISPATCH_DATA_REMAINS,
                                           connection);
    }
    EXPECT_EQ(Lines(), steps) << "not dispatched from inside libdbus's work";
    dispatcher->DispatchPending();
    EXPECT_EQ((Lines{"a", "a"}), steps);
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(DispatchTest, ACompleteStatusQueuesAndLogsNothing) {
    Connection* connection = Open("a", 0);
    test::TakeLog();
    Connection::GetDispatchStatus_stub(connection->connection, DBUS_DISPATCH_COMPLETE, connection);
    Connection::GetDispatchStatus_stub(connection->connection, static_cast<DBusDispatchStatus>(3),
                                       connection);
    dispatcher->DispatchPending();
    EXPECT_EQ(Lines(), steps);
    EXPECT_TRUE(test::TakeLog().empty());
}

TEST_F(DispatchTest, ANeedOfMemoryIsLoggedAsAnErrorAndQueuesNothing) {
    Connection* connection = Open("a", 0);
    test::TakeLog();
    Connection::GetDispatchStatus_stub(connection->connection, DBUS_DISPATCH_NEED_MEMORY,
                                       connection);
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(1u, lines.size());
    std::stringstream text;
    text << "Connection " << connection->connection << " needs memory";
    EXPECT_EQ(text.str(), lines[0].Body());
    EXPECT_EQ(115, lines[0].Line());
    EXPECT_EQ(6, lines[0].priority);
    dispatcher->DispatchPending();
    EXPECT_EQ(Lines(), steps);
}

TEST_F(DispatchTest, AStepDispatchesOnceAndSaysWhetherItIsDone) {
    Connection* connection = Open("a", 2);
    EXPECT_FALSE(connection->Dispatch());
    EXPECT_FALSE(connection->Dispatch());
    EXPECT_TRUE(connection->Dispatch());
    EXPECT_EQ((Lines{"a", "a", "a"}), steps);
    bus.connections.back().dispatch = [] { return DBUS_DISPATCH_NEED_MEMORY; };
    EXPECT_TRUE(connection->Dispatch()) << "reported again when there is memory";
}

TEST_F(DispatchTest, ADisconnectedConnectionIsDoneWithoutBeingDispatched) {
    Connection* connection = Open("a", 5);
    bus.connections.back().connected = false;
    test::TakeLog();
    EXPECT_TRUE(connection->Dispatch());
    EXPECT_EQ(0, bus.connections.back().dispatched);
    const std::vector<test::LogLine> lines = test::TakeLog();
    ASSERT_EQ(1u, lines.size());
    std::stringstream text;
    text << "Connection " << connection->connection << " terminated ";
    EXPECT_EQ(text.str(), lines[0].Body());
    EXPECT_EQ("Dispatch", lines[0].Function());
    EXPECT_EQ(79, lines[0].Line());
    EXPECT_EQ(3, lines[0].priority);
}

TEST_F(DispatchTest, AConnectionIsQueuedBeforeItsWatchesAreSet) {
    std::vector<std::size_t> queued;
    bus.onCall = [&](const std::string& function) {
        if (function == "dbus_connection_set_watch_functions" ||
            function == "dbus_bus_get_private") {
            queued.push_back(test::QueueOf(*dispatcher).size());
        }
    };
    const SR_DBusConnection connection = SR_DBusConnection::SystemBus(*dispatcher);
    EXPECT_EQ((std::vector<std::size_t>{0, 1}), queued);
}

TEST_F(DispatchTest, ABoundConnectionIsQueuedOnceAndServesItsWatches) {
    {
        const SR_DBusConnection connection = SR_DBusConnection::SystemBus(*dispatcher);
        FakeConnection& fake = bus.connections.back();
        dispatcher->DispatchPending();
        EXPECT_EQ(1, fake.dispatched);
        EXPECT_NE(nullptr, fake.statusFunction);
        Turn({POLLIN});
        EXPECT_EQ((std::vector<unsigned>{DBUS_WATCH_READABLE}), fake.watches.front().handled);
        fake.statusFunction(fake.Get(), DBUS_DISPATCH_DATA_REMAINS, fake.statusData);
        dispatcher->DispatchPending();
        EXPECT_EQ(2, fake.dispatched);
    }
    Turn();
    EXPECT_EQ(0u, test::polls.back().count) << "closing took the watches out";
}

}  // namespace
