// SPDX-License-Identifier: Apache-2.0
// Match rules on a real bus.
#include <gtest/gtest.h>

#include "Fixture.h"
#include "SR_DBusConnectionImpl.h"
#include "SR_DBusDispatcher.h"
#include "SR_DBusError.h"

namespace {

using sentrel::SR_DBusConnection;
using test::Texts;

std::string NameOfError(const std::function<void()>& action) {
    return test::ThrownName<sentrel::SR_DBusException>(action);
}

class MatchTest : public test::BusTest {
protected:
    MatchTest() : connection(SR_DBusConnection::SystemBus(dispatcher)) {}

    sentrel::SR_DBusDispatcher dispatcher;
    SR_DBusConnection connection;
};

const char kInvalid[] = "org.freedesktop.DBus.Error.MatchRuleInvalid";
const char kNotFound[] = "org.freedesktop.DBus.Error.MatchRuleNotFound";

TEST_F(MatchTest, AnAddedRuleIsLoggedAndItsSignalsArrive) {
    connection.AddMatch("type='signal',interface='org.sentrel.I'");
    EXPECT_EQ((Texts{"D AddMatch Connection (unique name: :UNIQUE) added match rule "
                     "type='signal',interface='org.sentrel.I'"}),
              test::BriefWithoutToggles());
    test::PlainConnection sender;
    DBusMessage* signal = dbus_message_new_signal("/a", "org.sentrel.I", "Happened");
    dbus_connection_send(sender.Get(), signal, nullptr);
    dbus_message_unref(signal);
    sender.AskBus("GetId");
    // Behind this answer the signal stands in the connection.
    EXPECT_FALSE(connection.HasName("org.sentrel.Nobody"));
    bool arrived = false;
    DBusConnection* const plain = SR_DBusConnection::Impl::Of(connection);
    while (DBusMessage* message = dbus_connection_pop_message(plain)) {
        arrived = arrived || dbus_message_is_signal(message, "org.sentrel.I", "Happened") != 0;
        dbus_message_unref(message);
    }
    EXPECT_TRUE(arrived);
}

TEST_F(MatchTest, AnInvalidRuleThrowsTheBussErrorAndLogsNothing) {
    EXPECT_EQ(kInvalid, NameOfError([this] { connection.AddMatch("nonsense"); }));
    EXPECT_TRUE(test::BriefWithoutToggles().empty());
}

TEST_F(MatchTest, AFailedQuietRemovalStillLogsTheRule) {
    EXPECT_NO_THROW(connection.RemoveMatch("type='signal',path='/never/added'", false));
    EXPECT_EQ((Texts{"D RemoveMatch Connection (unique name: :UNIQUE) removed match rule "
                     "type='signal',path='/never/added'"}),
              test::BriefWithoutToggles());
}

TEST_F(MatchTest, AFailedLoudRemovalThrowsAndLogsNothing) {
    EXPECT_EQ(kNotFound, NameOfError([this] { connection.RemoveMatch("type='signal'", true); }));
    EXPECT_TRUE(test::BriefWithoutToggles().empty());
}

TEST_F(MatchTest, AnInvalidRuleIsRefusedInRemovalToo) {
    EXPECT_EQ(kInvalid, NameOfError([this] { connection.RemoveMatch("nonsense", true); }));
    EXPECT_NO_THROW(connection.RemoveMatch("nonsense", false));
}

TEST_F(MatchTest, ARuleAddedTwiceIsThereTwice) {
    const std::string rule("type='signal',path='/twice'");
    connection.AddMatch(rule);
    connection.AddMatch(rule);
    EXPECT_NO_THROW(connection.RemoveMatch(rule, true));
    EXPECT_NO_THROW(connection.RemoveMatch(rule, true));
    EXPECT_EQ(kNotFound, NameOfError([&] { connection.RemoveMatch(rule, true); }));
}

TEST_F(MatchTest, ARuleIsPassedByteForByte) {
    test::Monitor monitor;
    const std::string rule("type='signal',arg0='a,b',arg1='it'\\''s \xC3\xA4',path='/x'");
    connection.AddMatch(rule);
    connection.RemoveMatch(rule, true);
    EXPECT_EQ((Texts{"AddMatch(" + rule + ")", "RemoveMatch(" + rule + ")"}),
              test::CallsFrom(monitor.Take(), connection.GetUniqueName()));
}

TEST_F(MatchTest, WithoutABusTheLoudOnesThrowAndTheQuietOneReturns) {
    bus.Stop();
    EXPECT_NE("nothing thrown", NameOfError([this] { connection.AddMatch("type='signal'"); }));
    EXPECT_EQ("org.freedesktop.DBus.Error.Disconnected",
              NameOfError([this] { connection.AddMatch("type='signal'"); }));
    EXPECT_EQ("org.freedesktop.DBus.Error.Disconnected",
              NameOfError([this] { connection.RemoveMatch("type='signal'", true); }));
    (void)test::TakeLog();
    EXPECT_NO_THROW(connection.RemoveMatch("type='signal'", false));
    EXPECT_EQ((Texts{"D RemoveMatch Connection (unique name: :UNIQUE) removed match rule "
                     "type='signal'"}),
              test::BriefWithoutToggles());
}

}  // namespace
