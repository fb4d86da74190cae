// SPDX-License-Identifier: Apache-2.0
// Who stands behind a bus name, in the bus's word.
#include "SR_DBusCredentials.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstdio>
#include <set>
#include <stdexcept>

#include "ChildProcess.h"
#include "Fixture.h"
#include "Loop.h"
#include "SR_DBusConnection.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"
#include "Skip.h"

namespace {

using sentrel::SR_DBusConnection;
using sentrel::SR_DBusCredentials;

const uid_t kPoison = 0x5EED;

class CredentialsTest : public test::BusTest {
protected:
    CredentialsTest() : connection(SR_DBusConnection::SystemBus(dispatcher)) {}

    std::string NameOfError(const std::string& name) {
        return test::ThrownName<sentrel::SR_DBusException>(
            [&] { const SR_DBusCredentials credentials(connection, name); });
    }

    sentrel::SR_DBusDispatcher dispatcher;
    SR_DBusConnection connection;
};

std::set<gid_t> OwnGroups() {
    std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
    EXPECT_GE(getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    std::set<gid_t> result(groups.begin(), groups.end());
    result.insert(getegid());
    return result;
}

TEST_F(CredentialsTest, OwnConnectionIsOwnUserProcessAndGroups) {
    const SR_DBusCredentials credentials(connection, connection.GetUniqueName());
    uid_t uid = kPoison;
    pid_t pid = -1;
    ASSERT_TRUE(credentials.GetUid(uid));
    ASSERT_TRUE(credentials.GetPid(pid));
    EXPECT_EQ(geteuid(), uid);
    EXPECT_EQ(getpid(), pid);
    EXPECT_EQ(OwnGroups(),
              std::set<gid_t>(credentials.GetGroups().begin(), credentials.GetGroups().end()));
}

TEST_F(CredentialsTest, AnotherProcessIsSeenByItsWellKnownName) {
    test::AgentProcess agent;
    const SR_DBusCredentials credentials(connection, test::kService);
    pid_t pid = -1;
    ASSERT_TRUE(credentials.GetPid(pid));
    EXPECT_EQ(agent.Pid(), pid);
}

TEST_F(CredentialsTest, TheBusItselfIsItsDaemon) {
    const SR_DBusCredentials credentials(connection, "org.freedesktop.DBus");
    pid_t pid = -1;
    ASSERT_TRUE(credentials.GetPid(pid));
    EXPECT_EQ(bus.Pid(), pid);
}

TEST_F(CredentialsTest, ANameThatNobodyHasThrows) {
    EXPECT_EQ("org.freedesktop.DBus.Error.NameHasNoOwner", NameOfError("org.sentrel.Nobody"));
    EXPECT_EQ("org.freedesktop.DBus.Error.NameHasNoOwner", NameOfError(":1.99999"));
}

TEST_F(CredentialsTest, WithoutABusItThrows) {
    bus.Stop();
    EXPECT_NE("nothing thrown", NameOfError(connection.GetUniqueName()));
    EXPECT_EQ("org.freedesktop.DBus.Error.Disconnected", NameOfError(":1.1"));
}

// Receives the answer to SR_DBusCredentials::Ask().
struct Receiver {
    void Answer(const SR_DBusCredentials* credentials) {
        ++answers;
        known = credentials != nullptr && credentials->GetUid(uid) && credentials->GetPid(pid);
        if (fails) {
            throw std::runtime_error("dropped");
        }
    }

    // A slot that shares `token` for as long as it is kept.
    sentrel::Slot<void, const SR_DBusCredentials*> Slot(boost::shared_ptr<int> token) {
        struct Holding : sentrel::BaseCallback<void, const SR_DBusCredentials*> {
            Holding(Receiver* to, boost::shared_ptr<int> held) : receiver(to), token(held) {}
            void call(const SR_DBusCredentials* credentials) const override {
                receiver->Answer(credentials);
            }
            Receiver* receiver;
            boost::shared_ptr<int> token;
        };
        return sentrel::Slot<void, const SR_DBusCredentials*>(
            boost::make_shared<Holding>(this, token));
    }

    int answers = 0;
    bool known = false;
    bool fails = false;
    uid_t uid = kPoison;
    pid_t pid = -1;
};

class AskTest : public test::BusTest {
protected:
    AskTest() : connection(SR_DBusConnection::SystemBus(loop.dispatcher)) {}

    test::Loop loop;
    SR_DBusConnection connection;
    Receiver receiver;
    boost::shared_ptr<int> token = boost::make_shared<int>(0);
};

TEST_F(AskTest, TheAnswerComesThroughTheLoopOnce) {
    ASSERT_TRUE(
        SR_DBusCredentials::Ask(connection, connection.GetUniqueName(), receiver.Slot(token)));
    EXPECT_EQ(0, receiver.answers);
    loop.RunUntil([this] { return receiver.answers != 0 && token.use_count() == 1; });
    EXPECT_EQ(1, receiver.answers);
    EXPECT_TRUE(receiver.known);
    EXPECT_EQ(geteuid(), receiver.uid);
    EXPECT_EQ(getpid(), receiver.pid);
}

TEST_F(AskTest, AnUnknownNameIsAnsweredWithNull) {
    ASSERT_TRUE(SR_DBusCredentials::Ask(connection, ":1.99999", receiver.Slot(token)));
    loop.RunUntil([this] { return receiver.answers != 0; });
    EXPECT_FALSE(receiver.known);
    EXPECT_EQ(kPoison, receiver.uid);
}

TEST_F(AskTest, AfterTheBusHasGoneThereIsNoAnswerAndNoMoreAsking) {
    ASSERT_TRUE(SR_DBusCredentials::Ask(connection, ":1.99999", receiver.Slot(token)));
    bus.Stop();
    loop.RunUntil([this] {
        return dbus_connection_get_is_connected(SR_DBusConnection::Impl::Of(connection)) == 0;
    });
    EXPECT_EQ(0, receiver.answers);
    EXPECT_FALSE(SR_DBusCredentials::Ask(connection, ":1.1", receiver.Slot(token)));
    EXPECT_EQ(2, token.use_count());  // of the first question, until the connection ends
}

TEST_F(AskTest, ManyQuestionsAtOnceGetEachTheirAnswer) {
    test::AgentProcess agent;
    std::vector<Receiver> receivers(40);
    for (std::size_t i = 0; i < receivers.size(); ++i) {
        const std::string name = i % 2 == 0 ? connection.GetUniqueName() : test::kService;
        ASSERT_TRUE(SR_DBusCredentials::Ask(connection, name, receivers[i].Slot(token)));
    }
    loop.RunUntil([this] { return token.use_count() == 1; });
    for (std::size_t i = 0; i < receivers.size(); ++i) {
        EXPECT_EQ(1, receivers[i].answers);
        EXPECT_EQ(i % 2 == 0 ? getpid() : agent.Pid(), receivers[i].pid);
    }
}

TEST_F(AskTest, WhatTheAnswerThrowsIsDropped) {
    receiver.fails = true;
    ASSERT_TRUE(
        SR_DBusCredentials::Ask(connection, connection.GetUniqueName(), receiver.Slot(token)));
    loop.RunUntil([this] { return receiver.answers != 0 && token.use_count() == 1; });
    EXPECT_EQ(1, receiver.answers);
}

TEST(AskAndEndTest, AnUnansweredQuestionIsReleasedWithTheConnection) {
    const test::PrivateBus bus;
    Receiver receiver;
    const boost::shared_ptr<int> token = boost::make_shared<int>(0);
    {
        sentrel::SR_DBusDispatcher dispatcher;
        SR_DBusConnection connection = SR_DBusConnection::SystemBus(dispatcher);
        ASSERT_TRUE(
            SR_DBusCredentials::Ask(connection, connection.GetUniqueName(), receiver.Slot(token)));
        EXPECT_EQ(2, token.use_count());
    }
    EXPECT_EQ(1, token.use_count());
    EXPECT_EQ(0, receiver.answers);
}

TEST_F(CredentialsTest, ACopyIsIndependent) {
    const SR_DBusCredentials first(connection, connection.GetUniqueName());
    const SR_DBusCredentials second(first);
    uid_t uid = kPoison;
    EXPECT_TRUE(second.GetUid(uid));
    EXPECT_EQ(geteuid(), uid);
    EXPECT_EQ(first.GetGroups(), second.GetGroups());
    EXPECT_EQ(first.GetLabel(), second.GetLabel());
}

TEST_F(CredentialsTest, AnotherUserIsSeenWithItsGroups) {
    if (geteuid() != 0) {
        SENTREL_SKIP("needs root to become another user");
    }
    // The bus admits only users that the system knows.
    const passwd* const nobody = getpwnam("nobody");
    ASSERT_NE(nullptr, nobody);
    const uid_t user = nobody->pw_uid;
    const std::vector<gid_t> groups = {54400, 54401};
    test::Pipe told;
    test::Pipe end;
    const pid_t child = test::Fork([&] {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(54322) != 0 ||
            setuid(user) != 0) {
            std::perror("becoming another user");
            return 1;
        }
        const test::PlainConnection other;
        const std::string line = other.UniqueName() + "\n";
        if (write(told.Writer(), line.data(), line.size()) < 0) {
            return 2;
        }
        return test::WaitFor(end.Reader(), POLLIN, 30000) ? 0 : 3;
    });
    told.CloseWriter();
    std::string name;
    try {
        name = told.ReadLine(30000);
    } catch (const std::exception& exception) {
        FAIL() << exception.what() << "; the child's status: " << test::Reap(child, 30000);
    }
    const SR_DBusCredentials credentials(connection, name);
    uid_t uid = kPoison;
    pid_t pid = -1;
    ASSERT_TRUE(credentials.GetUid(uid));
    ASSERT_TRUE(credentials.GetPid(pid));
    EXPECT_EQ(user, uid);
    EXPECT_EQ(child, pid);
    EXPECT_EQ((std::set<gid_t>{54322, 54400, 54401}),
              std::set<gid_t>(credentials.GetGroups().begin(), credentials.GetGroups().end()));
    ASSERT_EQ(1, write(end.Writer(), "\n", 1));
    EXPECT_EQ(0, test::Reap(child, 30000));
}

}  // namespace
