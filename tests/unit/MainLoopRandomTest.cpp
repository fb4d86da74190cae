// SPDX-License-Identifier: Apache-2.0
// The loop against a plain model of one iteration, over random histories: events that are created,
// duplicated, switched and destroyed before, during and inside the handlers of iterations, nested
// iterations included, and watches that their own handlers move to other descriptors. Both sides
// are driven by the same decisions, which depend on nothing but the history's seed and on what was
// fired; so they agree as long as they fire alike.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FakePoll.h"

namespace {

using sentrel::SR_MainLoop;

const int kDescriptors = 4;

// A number that depends on nothing but its arguments.
std::uint64_t Mix(std::uint64_t a, std::uint64_t b) {
    std::uint64_t x = a * 0x9E3779B97F4A7C15ULL + b + 0x7F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

class Dice {
public:
    Dice(std::uint64_t seed, std::uint64_t occasion) : state(Mix(seed, occasion)) {}
    int Roll(int sides) {
        state = Mix(state, 1);
        return static_cast<int>(state % static_cast<std::uint64_t>(sides));
    }

private:
    std::uint64_t state;
};

// What both sides can do. Events are numbered in the order of their making; watches and timers
// together.
class World {
public:
    explicit World(std::uint64_t historySeed) : seed(historySeed) {}
    virtual ~World() {}

    virtual void AddWatch(int id, int fd, bool on) = 0;
    virtual void AddTimer(int id, int interval, bool repeat, bool on) = 0;
    virtual void Destroy(int id) = 0;
    virtual void Enable(int id, bool on) = 0;
    virtual void Move(int id, int fd) = 0;  // a watch, by its own handler
    virtual void Iterate() = 0;
    virtual void ClockMoved() {}

    // A few random actions.
    void Act(std::uint64_t occasion, int most) {
        Dice dice(seed, occasion);
        for (int left = dice.Roll(most + 1); left > 0; --left) {
            ActOnce(dice);
        }
    }

    void Fired(int id, int state) {
        journal << id << '/' << state << ' ';
        // At most one nested iteration, and no endless growth.
        const std::uint64_t occasion = 1000 + 64 * static_cast<std::uint64_t>(firings++);
        Dice dice(seed, occasion + 2);
        if (state != -1 && dice.Roll(4) == 0) {
            Move(id, dice.Roll(kDescriptors));
        }
        if (firings < 60) {
            Act(occasion, 3);
        }
        if (depth == 1 && Dice(seed, occasion + 1).Roll(8) == 0) {
            journal << "( ";
            Iterate();
            journal << ") ";
        }
    }

    // What the wait does: moves the clock and lets "another thread" act.
    void Wait() {
        Dice dice(seed, 500 + static_cast<std::uint64_t>(waits));
        clock += dice.Roll(40);
        ClockMoved();
        if (dice.Roll(3) == 0) {
            Act(600 + static_cast<std::uint64_t>(waits), 3);
        }
        ++waits;
    }

    // The result of slot `slot` of the wait that was last.
    int Result(int slot, int fd) const {
        static const int kResults[] = {0, 0, POLLIN, POLLHUP, POLLNVAL, POLLIN | POLLERR};
        return kResults[Dice(seed, static_cast<std::uint64_t>(waits * 4096 + slot * 64 + fd))
                            .Roll(6)];
    }

    std::ostringstream journal;

protected:
    struct Scope {
        explicit Scope(int& counter) : depth(counter) { ++depth; }
        ~Scope() { --depth; }
        int& depth;
    };

    const std::uint64_t seed;
    std::vector<int> live;  // ids, in order
    int nextId = 0;
    int depth = 0;
    int firings = 0;
    int waits = 0;
    int clock = 0;  // milliseconds since the history began

private:
    void ActOnce(Dice& dice) {
        const int choice = dice.Roll(10);
        const int value = dice.Roll(1 << 16);
        if (choice < 2 || live.empty()) {
            live.push_back(nextId);
            AddWatch(nextId++, value % kDescriptors, dice.Roll(4) != 0);
        } else if (choice < 4) {
            static const int kIntervals[] = {0, 5, 20, 50, 20000};
            live.push_back(nextId);
            AddTimer(nextId++, kIntervals[value % 5], dice.Roll(2) == 0, dice.Roll(4) != 0);
        } else {
            const std::size_t index = static_cast<std::size_t>(value) % live.size();
            const int id = live[index];
            if (choice < 7) {
                live.erase(live.begin() + static_cast<std::ptrdiff_t>(index));
                Destroy(id);
            } else {
                Enable(id, dice.Roll(2) == 0);
            }
        }
    }
};

class RealWorld : public World {
public:
    explicit RealWorld(std::uint64_t historySeed) : World(historySeed), loop(new SR_MainLoop) {
        start = test::wallClock;
    }

    void AddWatch(int id, int fd, bool on) override {
        test::Watch* watch =
            new test::Watch(*loop, fd, [this, id] { Fired(id, watches.at(id)->State()); });
        watch->Enable(on);
        watches[id] = watch;
    }
    void AddTimer(int id, int interval, bool repeat, bool on) override {
        test::Timer* timer =
            new test::Timer(*loop, interval, repeat, [this, id] { Fired(id, -1); });
        timer->Enable(on);
        timers[id] = timer;
    }
    void Destroy(int id) override {
        if (watches.count(id) != 0) {
            delete watches[id];
            watches.erase(id);
        } else {
            delete timers.at(id);
            timers.erase(id);
        }
    }
    void Enable(int id, bool on) override {
        if (watches.count(id) != 0) {
            watches[id]->Enable(on);
        } else {
            timers.at(id)->Enable(on);
        }
    }
    void Move(int id, int fd) override { watches.at(id)->MoveTo(fd); }
    void ClockMoved() override { test::wallClock = start + 1000LL * clock; }
    void Iterate() override {
        const Scope scope(depth);
        test::onPoll = [this](pollfd* slots, nfds_t count, int timeout) {
            journal << "poll " << count << ' ' << timeout << ": ";
            Wait();
            for (nfds_t i = 0; i < count; ++i) {
                slots[i].revents = static_cast<short>(Result(static_cast<int>(i), slots[i].fd));
            }
            return -1;
        };
        loop->Dispatch();
    }
    std::string Finish() {
        for (const auto& timer : timers) {
            journal << "due " << timer.first << ' '
                    << timer.second->Expiry() - static_cast<double>(start) / 1000.0 << ' ';
        }
        for (auto& watch : watches) {
            journal << "state " << watch.first << ' ' << watch.second->State() << ' ';
            watch.second->farewell = [this, id = watch.first] { journal << '~' << id << ' '; };
        }
        for (auto& timer : timers) {
            timer.second->farewell = [this, id = timer.first] { journal << '~' << id << ' '; };
        }
        loop.reset();
        return journal.str();
    }

private:
    std::unique_ptr<SR_MainLoop> loop;
    std::map<int, test::Watch*> watches;
    std::map<int, test::Timer*> timers;
    long long start;
};

// One iteration in plain words. Events are never freed here, only marked as gone.
class ModelWorld : public World {
public:
    using World::World;

    void AddWatch(int id, int fd, bool on) override {
        watches.push_back(std::make_shared<ModelEvent>(ModelEvent{id, on, false, fd, 0, 0, false}));
        byId[id] = watches.back();
    }
    void AddTimer(int id, int interval, bool repeat, bool on) override {
        timers.push_back(std::make_shared<ModelEvent>(
            ModelEvent{id, on, false, interval, 0, clock + interval, repeat}));
        byId[id] = timers.back();
    }
    void Destroy(int id) override {
        const std::shared_ptr<ModelEvent> event = byId.at(id);
        event->gone = true;
        watches.erase(std::remove(watches.begin(), watches.end(), event), watches.end());
        timers.erase(std::remove(timers.begin(), timers.end(), event), timers.end());
        byId.erase(id);
    }
    void Enable(int id, bool on) override { byId.at(id)->enabled = on; }
    void Move(int id, int fd) override { byId.at(id)->number = fd; }

    void Iterate() override {
        const Scope scope(depth);
        const std::vector<std::shared_ptr<ModelEvent> > partakers = watches;
        std::vector<Slot> slots;
        for (const auto& watch : partakers) {
            if (watch->enabled) {
                slots.push_back(Slot{watch->number, 0});
            }
        }
        int timeout = 10000;
        for (const auto& timer : timers) {
            if (timer->enabled) {
                timeout = std::min(timeout, timer->number);
            }
        }
        journal << "poll " << slots.size() << ' ' << timeout << ": ";
        Wait();
        for (std::size_t i = 0; i < slots.size(); ++i) {
            slots[i].result = Result(static_cast<int>(i), slots[i].fd);
        }
        const int now = clock;
        FireTimers(now);
        for (Slot& slot : slots) {
            FireWatch(slot, partakers);
        }
    }
    std::string Finish() {
        for (const auto& timer : timers) {
            journal << "due " << timer->id << ' ' << timer->expiry << ' ';
        }
        for (const auto& watch : watches) {
            journal << "state " << watch->id << ' ' << watch->state << ' ';
        }
        for (const auto& watch : watches) {
            journal << '~' << watch->id << ' ';
        }
        for (const auto& timer : timers) {
            journal << '~' << timer->id << ' ';
        }
        return journal.str();
    }

private:
    struct ModelEvent {
        int id;
        bool enabled;
        bool gone;
        int number;  // descriptor or interval
        int state;
        int expiry;
        bool repeat;
    };
    struct Slot {
        int fd;
        int result;
    };

    void FireTimers(int now) {
        const std::vector<std::shared_ptr<ModelEvent> > present = timers;
        for (const auto& timer : present) {
            if (timer->gone || !timer->enabled || timer->expiry > now) {
                continue;
            }
            Fired(timer->id, -1);
            if (!timer->gone && timer->repeat) {
                timer->expiry = now + timer->number;
            }
        }
    }

    void FireWatch(Slot& slot, const std::vector<std::shared_ptr<ModelEvent> >& partakers) {
        for (const auto& watch : partakers) {
            if (slot.result != 0 && !watch->gone && watch->enabled && watch->number == slot.fd) {
                watch->state = slot.result;
                Fired(watch->id, slot.result);
                slot.result = 0;
            }
        }
    }

    std::vector<std::shared_ptr<ModelEvent> > watches;
    std::vector<std::shared_ptr<ModelEvent> > timers;
    std::map<int, std::shared_ptr<ModelEvent> > byId;
};

template <typename SomeWorld>
std::string RunHistory(std::uint64_t seed) {
    test::ResetPoll();
    SomeWorld world(seed);
    const int iterations = 3 + Dice(seed, 1).Roll(5);
    for (int i = 0; i < iterations; ++i) {
        world.Act(10 + static_cast<std::uint64_t>(i), 8);
        world.Iterate();
    }
    return world.Finish();
}

// A block of histories. An optimised build runs a million in all, any other the first block only.
const std::uint64_t kHistories = 20000;
#ifdef __OPTIMIZE__
const std::uint64_t kBlocks = 50;
#else
const std::uint64_t kBlocks = 1;
#endif

class MainLoopRandomTest : public testing::TestWithParam<std::uint64_t> {};

TEST_P(MainLoopRandomTest, TheLoopFiresWhatAPlainModelFires) {
    std::size_t fired = 0;
    std::size_t nested = 0;
    for (std::uint64_t seed = GetParam() * kHistories; seed < (GetParam() + 1) * kHistories;
         ++seed) {
        const std::string expected = RunHistory<ModelWorld>(seed);
        ASSERT_EQ(expected, RunHistory<RealWorld>(seed)) << "history " << seed;
        fired += static_cast<std::size_t>(std::count(expected.begin(), expected.end(), '/'));
        nested += static_cast<std::size_t>(std::count(expected.begin(), expected.end(), '('));
    }
    test::ResetPoll();
    // The histories are worth something only if much happens in them.
    EXPECT_GT(fired, 5 * kHistories);
    EXPECT_GT(nested, kHistories / 4);
}

INSTANTIATE_TEST_SUITE_P(Block, MainLoopRandomTest, testing::Range<std::uint64_t>(0, kBlocks));

}  // namespace
