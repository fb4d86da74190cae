// SPDX-License-Identifier: Apache-2.0
// One exported call after another, in each of which one allocation fails: the first, the second,
// and so on to the last. What must come of it follows from where the call was, which a run without
// a failure tells: before and behind the exchange std::bad_alloc leaves the call, inside it the
// call returns 6, and in a destructor the program ends. Log lines of usual length take no memory.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "FakeBus.h"
#include "SR_API.h"

extern "C" __attribute__((visibility("default"))) int __dlog_print(int log_id, int priority,
                                                                   const char* tag,
                                                                   const char* format, ...);

namespace {

using test::bus;

const int kPoison = 0x5a5a5a5a;
const int kEnded = 77;       // exit status of std::terminate
const int kThrown = 78;      // std::bad_alloc left the call
const int kUnbalanced = 79;  // a libdbus reference was not given back
const int kTouched = 80;     // the result was written although the call failed
const int kForgiven = 81;    // the call succeeded all the same
const int kLeaked = 82;      // a block was not given back, or was given back twice

bool counting = false;
int allocations = 0;    // of the library, while counting
int live = 0;           // those not given back
int failAt = 0;         // 0: none fails
std::string errorText;  // when not empty, the calls get this error instead of a reply

// What is sent: longer than what a string holds without an allocation.
const char kText[] = "-t tmpfs -o size=1m none /run/media/x";
// The blocks of a call that have room for it and no more, and whether their end is an event.
void* texts[8];
int textCount = 0;
bool notingTexts = false;

// What comes next after an allocation: "log BODY", "call FUNCTION" or "free the text".
struct Event {
    int allocations;  // so far
    char text[96];
};
Event events[64];
int eventCount = 0;
// Those of a run without a failure.
Event reference[64];
int referenceCount = 0;

void Note(const char* kind, const char* text) {
    if (counting && eventCount < 64) {
        Event& event = events[eventCount++];
        event.allocations = allocations;
        std::snprintf(event.text, sizeof(event.text), "%s %s", kind, text);
    }
}

void* Allocate(std::size_t size) {
    if (counting && test::fakeDepth == 0 && ++allocations == failAt) {
        throw std::bad_alloc();
    }
    void* memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) {
        std::abort();
    }
    live += counting && test::fakeDepth == 0;
    if (notingTexts && counting && test::fakeDepth == 0 && size == sizeof(kText)) {
        if (textCount == 8) {
            std::abort();
        }
        texts[textCount++] = memory;
    }
    return memory;
}

void Free(void* memory) {
    live -= memory != nullptr && counting && test::fakeDepth == 0;
    for (int i = 0; i < textCount; ++i) {
        if (texts[i] == memory && memory != nullptr) {
            Note("free", std::memcmp(memory, kText, sizeof(kText)) == 0 ? "the text" : "another");
            texts[i] = nullptr;
        }
    }
    std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
    return Allocate(size);
}
void* operator new[](std::size_t size) {
    return Allocate(size);
}
void operator delete(void* memory) noexcept {
    Free(memory);
}
void operator delete[](void* memory) noexcept {
    Free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    Free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    Free(memory);
}

// A platform log that allocates nothing.
int __dlog_print(int /*log_id*/, int /*priority*/, const char* /*tag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)va_arg(arguments, const char*);
    (void)va_arg(arguments, const char*);
    (void)va_arg(arguments, int);
    const char* body = std::strchr(va_arg(arguments, const char*), ']');
    va_end(arguments);
    body = body != nullptr ? std::strchr(body + 1, ']') : nullptr;
    Note("log", body != nullptr ? body + 1 : "(another shape)");
    return 0;
}

namespace {

// One call, in which allocation number `failing` fails; returns its code or kThrown.
int Call(int failing) {
    bus.Reset();
    if (!errorText.empty()) {
        bus.failing = "dbus_connection_send_with_reply_and_block";
        bus.errorName = "org.a.Error";
        bus.errorText = errorText;
    }
    bus.onCall = [](const std::string& function) { Note("call", function.c_str()); };
    failAt = failing;
    allocations = 0;
    live = 0;
    eventCount = 0;
    textCount = 0;
    int result = kPoison;
    int code = kThrown;
    counting = true;
    try {
        code = SR_Mount(kText, sizeof(kText) - 1, 1, &result);
    } catch (const std::bad_alloc&) {
    }
    counting = false;
    if (!bus.Balanced()) {
        return kUnbalanced;
    }
    if (live != 0) {
        return kLeaked;
    }
    if ((code == 0) != (result != kPoison)) {
        return kTouched;
    }
    if (code == 0 && failing > 0 && failing <= allocations) {
        return kForgiven;
    }
    return code;
}

// The same in a child, whose end by std::terminate is an outcome too.
int CallInChild(int failing) {
    const pid_t child = fork();
    if (child == 0) {
        std::set_terminate([] { _exit(kEnded); });
        _exit(Call(failing));
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

bool Starts(const char* text, const char* start) {
    return std::strncmp(text, start, std::strlen(start)) == 0;
}

bool IsDestruction(const char* text) {
    return Starts(text, "call dbus_bus_remove_match") ||
           Starts(text, "call dbus_connection_close") || Starts(text, "log Terminating") ||
           Starts(text, "log destroy dispatcher") ||
           std::strstr(text, "removed match rule") != nullptr;
}

// The outcomes by the number of the failing allocation; [0] is not used. Each is told by the event
// that the allocation comes before.
std::vector<int> ExpectedOutcomes() {
    std::vector<int> outcomes(1, 0);
    for (int i = 0; i < referenceCount; ++i) {
        const char* text = reference[i].text;
        int outcome = 6;
        if (i == 0 || Starts(text, "log response:")) {
            outcome = kThrown;  // the call's own work, before and after the exchange
        } else if (IsDestruction(text)) {
            outcome = kEnded;
        }
        if (i == 1) {
            // The request's copy of the text, and the bus name, made outside the exchange.
            outcomes.resize(outcomes.size() + 2, kThrown);
        }
        outcomes.resize(static_cast<std::size_t>(reference[i].allocations) + 1, outcome);
    }
    return outcomes;
}

std::string Where(int allocation) {
    for (int i = 0; i < referenceCount; ++i) {
        if (allocation <= reference[i].allocations) {
            return reference[i].text;
        }
    }
    return "the end";
}

TEST(AllocationTest, EachFailedAllocationOfACallHasTheOutcomeOfItsPlace) {
    // Once before, so that nothing is allocated only the first time.
    ASSERT_EQ(0, Call(0));
    ASSERT_EQ(0, Call(0));
    ASSERT_LT(eventCount, 64) << "none went unrecorded";
    const int total = allocations;
    std::memcpy(reference, events, sizeof(events));
    referenceCount = eventCount;
    const std::vector<int> expected = ExpectedOutcomes();
    ASSERT_EQ(static_cast<std::size_t>(total) + 1, expected.size());
    int counts[kLeaked + 1] = {};
    for (int n = 1; n <= total; ++n) {
        const int outcome = CallInChild(n);
        const int due = expected[static_cast<std::size_t>(n)];
        EXPECT_EQ(due, outcome) << "allocation " << n << " of " << total
                                << ", before: " << Where(n);
        if (outcome >= 0 && outcome <= kLeaked) {
            ++counts[outcome];
        }
    }
    // Each kind of place was met.
    EXPECT_GE(counts[6], 20);
    EXPECT_EQ(3, counts[kThrown]) << "the text, the request's copy of it, and the bus name";
    EXPECT_EQ(1, counts[kEnded]) << "the rule that the proxy's destructor removes";
    EXPECT_EQ(0, CallInChild(total + 1)) << "no further allocation is made";
}

TEST(AllocationTest, TheTextOfACallEndsLastBehindTheDispatcherThatWasMadeAfterIt) {
    notingTexts = true;
    EXPECT_EQ(0, Call(0));
    notingTexts = false;
    ASSERT_GE(eventCount, 4);
    EXPECT_STREQ("log response:", events[eventCount - 4].text);
    EXPECT_STREQ("free the text", events[eventCount - 3].text) << "the request's";
    EXPECT_TRUE(Starts(events[eventCount - 2].text, "log destroy dispatcher"));
    EXPECT_STREQ("free the text", events[eventCount - 1].text) << "the call's";
}

// The outcome of a call that gets an error with this text, for each failing allocation.
std::vector<int> OutcomesWithError(const std::string& text) {
    errorText = text;
    EXPECT_EQ(6, Call(0));
    EXPECT_EQ(6, Call(0));
    const int total = allocations;
    std::vector<int> outcomes;
    for (int n = 1; n <= total; ++n) {
        outcomes.push_back(CallInChild(n));
    }
    errorText.clear();
    return outcomes;
}

// The exchange's line about an error is written outside its try block.
TEST(AllocationTest, ALongLineThatCannotBeComposedThrowsAndAShortOneNeedsNothing) {
    std::vector<int> expected = OutcomesWithError(std::string(100, 'x'));
    ASSERT_GE(expected.size(), 20u);
    EXPECT_NE(kThrown, expected.back());
    expected.push_back(kThrown);  // the text outgrows its place,
    expected.push_back(kThrown);  // and so does the entry
    EXPECT_EQ(expected, OutcomesWithError(std::string(1000, 'x')));
}

}  // namespace
