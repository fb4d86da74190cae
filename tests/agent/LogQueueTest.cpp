// SPDX-License-Identifier: Apache-2.0
// The log that never waits: readers that stop, go and come back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <csignal>
#include <sstream>

#include "LogReader.h"
#include "RunFixture.h"
#include "RunProgram.h"
#include "answer/Audit.h"
#include "answer/Log.h"

using agent::AttachedLog;
using agent::ErrorStream;
using agent::LogEntry;
using agent::LogLimits;
using agent::LogPlaces;
using agent::SystemLog;

namespace {

LogEntry Line(const std::string& text) {
    LogEntry entry;
    entry.text = text;
    return entry;
}

// A queue's lines as they would be written; nobody reads them.
class Kept : public agent::LogQueue {
public:
    Kept() : LogQueue(LogLimits()) {}
    std::vector<std::string> lines;

protected:
    Offered Offer(LogEntry& entry) override {
        lines.push_back(entry.text);
        return Offered::kTaken;
    }
    int Descriptor() const override { return -1; }
};

class LogQueueTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(SIG_ERR, signal(SIGPIPE, SIG_IGN));
        places.journal = directory / "journal";
        places.syslog = directory / "log";
    }

    // The text of an entry in syslog's form, which must have the priority and a time in front.
    static std::string TextOf(const std::string& entry, const std::string& priority = "<85>") {
        const std::string name = " sentrel-agent: ";
        const std::size_t at = entry.find(name);
        if (entry.compare(0, priority.size(), priority) != 0 || at != priority.size() + 15) {
            return "not in syslog's form: " + entry;
        }
        return entry.substr(at + name.size());
    }

    template <typename Condition>
    bool RunUntil(Condition condition) {
        bool late = false;
        const auto limit =
            agent::Timer::Make(loop, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                               [&late] { late = true; });
        late = !limit;
        while (!condition() && !late) {
            loop.Dispatch();
        }
        return condition();
    }

    PrivateDirectory directory;
    LogPlaces places;
    Kept fallback;
    sentrel::SR_MainLoop loop;
};

TEST_F(LogQueueTest, WithoutAJournalALineHasSyslogsForm) {
    const test::LogReader reader(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits(), places);
    log.Write(Line("phase=start id=1"));
    EXPECT_EQ("phase=start id=1", TextOf(reader.Next()));
    EXPECT_TRUE(fallback.lines.empty());
}

TEST_F(LogQueueTest, TheJournalGetsEachValueAsAFieldOfItsOwn) {
    const test::LogReader reader(places.journal);
    const test::LogReader other(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits(), places);
    agent::Audit audit(log);
    agent::AuditRequest request;
    request.id = 7;
    request.uid = 1000;
    request.operation = "sr_mount";
    request.arguments = {"x\nMESSAGE=forged", "\"y\""};
    request.rule = "/etc/10.toml:3";
    audit.Denied(request, 7, "no rule\nSENTREL_UID=0");
    const std::string entry = "\n" + reader.Next();
    for (const char* field :
         {"PRIORITY=5", "SYSLOG_FACILITY=10", "SYSLOG_IDENTIFIER=sentrel-agent",
          "SENTREL_PHASE=end", "SENTREL_ID=7", "SENTREL_UID=1000", "SENTREL_AGENT=sr_mount",
          "SENTREL_DECISION=deny", "SENTREL_STATUS=7", "SENTREL_RULE=/etc/10.toml:3",
          "SENTREL_ARGS=x\\x0aMESSAGE=forged \\\"y\\\"",
          "SENTREL_REASON=no rule\\x0aSENTREL_UID=0"}) {
        EXPECT_NE(std::string::npos, entry.find("\n" + std::string(field) + "\n"))
            << field << " in" << entry;
    }
    EXPECT_NE(std::string::npos, entry.find("\nMESSAGE=phase=end id=7 uid=1000 ")) << entry;
    EXPECT_EQ(std::string::npos, entry.find("\nMESSAGE=forged")) << entry;
    EXPECT_FALSE(other.HasMore());
}

TEST_F(LogQueueTest, WhatAStoppedReaderDoesNotTakeArrivesInOrderWhenItReadsAgain) {
    const test::LogReader reader(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits(), places);
    const AttachedLog attached(log, loop);
    for (int i = 0; i < 1000; ++i) {
        log.Write(Line(std::to_string(i)));  // the socket holds a few of these, and nobody reads
    }
    ASSERT_GT(log.Waiting(), 0U);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(RunUntil([&reader] { return reader.HasMore(); })) << i;
        ASSERT_EQ(std::to_string(i), TextOf(reader.Next()));
    }
    EXPECT_EQ(0U, log.Waiting());
    EXPECT_FALSE(reader.HasMore());
}

TEST_F(LogQueueTest, WhatTheQueueHasNoRoomForIsCountedAndTheCountIsALine) {
    const test::LogReader reader(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits{20, 100000}, places);
    const AttachedLog attached(log, loop);
    const int all = 2000;
    for (int i = 0; i < all; ++i) {
        log.Write(Line(std::to_string(i)));
    }
    EXPECT_EQ(20U, log.Waiting());
    int next = 0;
    std::string text;
    while (RunUntil([&reader] { return reader.HasMore(); })) {
        const std::string entry = reader.Next();
        text = TextOf(entry, test::Holds(entry, "lost") ? "<84>" : "<85>");
        if (text != std::to_string(next)) {
            break;
        }
        ++next;
    }
    EXPECT_GE(next, 20);
    EXPECT_EQ(std::to_string(all - next) + " lines were lost here: the log did not take them",
              text);
    log.Write(Line("later"));
    ASSERT_TRUE(RunUntil([&reader] { return reader.HasMore(); }));
    EXPECT_EQ("later", TextOf(reader.Next()));
}

TEST_F(LogQueueTest, TheQueueIsBoundedByBytesToo) {
    const test::LogReader reader(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits{1000, 50000}, places);
    const AttachedLog attached(log, loop);
    for (int i = 0; i < 500; ++i) {
        log.Write(Line(std::string(10000, 'x')));
    }
    EXPECT_LE(log.Waiting(), 5U);
    EXPECT_GT(log.Waiting(), 0U);
}

TEST_F(LogQueueTest, AReaderThatWasStartedAnewGetsWhatWaited) {
    auto reader = std::make_unique<test::LogReader>(places.syslog);
    SystemLog log("sentrel-agent", fallback, LogLimits(), places);
    const AttachedLog attached(log, loop);
    int sent = 0;
    while (log.Waiting() < 5) {
        log.Write(Line(std::to_string(sent++)));
    }
    reader = std::make_unique<test::LogReader>(places.syslog);  // what the old one had is its loss
    for (int i = sent - 5; i < sent; ++i) {
        ASSERT_TRUE(RunUntil([&reader] { return reader->HasMore(); })) << i;
        EXPECT_EQ(std::to_string(i), TextOf(reader->Next()));
    }
    EXPECT_TRUE(fallback.lines.empty());
}

TEST_F(LogQueueTest, WithoutAReaderStandardErrorHasTheLinesUntilOneComesBack) {
    SystemLog log("sentrel-agent", fallback, LogLimits(), places);
    log.Write(Line("first"));  // there never was one
    EXPECT_EQ((std::vector<std::string>{"first"}), fallback.lines);
    {
        const test::LogReader reader(places.syslog);
        log.Write(Line("second"));
        EXPECT_EQ("second", TextOf(reader.Next()));
    }
    log.Write(Line("third"));  // its socket's file is still there
    ASSERT_EQ(0, unlink(places.syslog.c_str()));
    log.Write(Line("fourth"));
    EXPECT_EQ((std::vector<std::string>{"first", "third", "fourth"}), fallback.lines);
    const test::LogReader back(places.syslog);
    log.Write(Line("fifth"));
    EXPECT_EQ("fifth", TextOf(back.Next()));
    EXPECT_EQ(3U, fallback.lines.size());
}

// ---- standard error

class ErrorStreamTest : public LogQueueTest {
protected:
    // Lines until the reader takes no more; how many were written.
    static int Fill(agent::LogQueue& stream, std::size_t waiting) {
        int count = 0;
        while (stream.Waiting() < waiting) {
            stream.Write(Line(std::to_string(count++) + " " + std::string(900, 'x')));
        }
        return count;
    }
    void ExpectAll(int reader, int count) {
        std::string text;
        ASSERT_TRUE(RunUntil([&] {
            text += test::ReadReady(reader);
            return test::Holds(text, "sentrel-agent: " + std::to_string(count - 1) + " ") &&
                   text.back() == '\n';
        }));
        std::istringstream lines(text);
        std::string line;
        for (int i = 0; i < count; ++i) {
            ASSERT_TRUE(std::getline(lines, line));
            ASSERT_EQ("sentrel-agent: " + std::to_string(i) + " " + std::string(900, 'x'), line);
        }
        EXPECT_FALSE(std::getline(lines, line));
    }
};

TEST_F(ErrorStreamTest, APipeThatNobodyReadsHoldsNobodyUpAndKeepsItsFlags) {
    TestPipe pipe;
    ErrorStream stream(pipe.writer.Get());
    const AttachedLog attached(stream, loop);
    const int count = Fill(stream, 50);
    EXPECT_EQ(0, fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK);
    ExpectAll(pipe.reader.Get(), count);
    EXPECT_EQ(0U, stream.Waiting());
}

// The kernel lets a process that keeps others out, and is not root's, open no descriptor anew.
TEST_F(ErrorStreamTest, APipeThatCannotBeOpenedAnewHoldsNobodyUpEither) {
    TestPipe pipe;
    const pid_t child = test::Fork([&] {
        if ((geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0)) ||
            prctl(PR_SET_DUMPABLE, 0) != 0) {
            return 90;
        }
        ErrorStream stream(pipe.writer.Get());
        const AttachedLog attached(stream, loop);
        (void)Fill(stream, 50);
        return (fcntl(pipe.writer.Get(), F_GETFL) & O_NONBLOCK) == 0 ? 17 : 91;
    });
    EXPECT_EQ(17 << 8, test::Reap(child, test::kLimit));
}

TEST_F(ErrorStreamTest, ASocketThatNobodyReadsHoldsNobodyUp) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const agent::OwnedFd ours(ends[0]);
    const agent::OwnedFd theirs(ends[1]);
    ErrorStream stream(ours.Get());
    const AttachedLog attached(stream, loop);
    ExpectAll(theirs.Get(), Fill(stream, 50));
}

TEST_F(ErrorStreamTest, AFileIsAppendedToAtTheSharedPlace) {
    const agent::OwnedFd file(open((directory / "errors").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(5, write(file.Get(), "said\n", 5));
    ErrorStream stream(file.Get());
    stream.WriteLine("more");
    EXPECT_EQ("said\nsentrel-agent: more\n", Contents(directory / "errors"));
}

TEST_F(ErrorStreamTest, AReaderThatHasGoneIsNoTrouble) {
    TestPipe pipe;
    ErrorStream stream(pipe.writer.Get());
    const AttachedLog attached(stream, loop);
    (void)Fill(stream, 50);
    pipe.reader.Reset();
    for (int i = 0; i < 100; ++i) {
        stream.WriteLine("x");
    }
    EXPECT_EQ(0U, stream.Waiting());
}

}  // namespace
