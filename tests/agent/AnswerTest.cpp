// SPDX-License-Identifier: Apache-2.0
// One reply for every call that wants one, seen from a caller on a private bus.
#include "answer/Answer.h"

#include <sentrel/SR_DBusAdaptor.h>
#include <sentrel/SR_DBusDispatcher.h>
#include <signal.h>
#include <sys/wait.h>

#include <boost/make_shared.hpp>
#include <functional>

#include "PrivateBus.h"
#include "RunFixture.h"
#include "base/Events.h"

using agent::Answer;

namespace {

const char kName[] = "org.example.answering";

// Hands each call to a function of the test's.
class Served : public sentrel::SR_DBusIAdaptor, public sentrel::SR_DBusAdaptor {
public:
    typedef std::function<void(agent::Replies&, const sentrel::SR_DBusReturnAddress&)> Handler;

    Served(sentrel::SR_DBusConnection& bus, const Handler& function)
        : SR_DBusIAdaptor(kName), SR_DBusAdaptor(bus, "/served"), replies(bus), handler(function) {
        AddMethod("Ask",
                  sentrel::Slot<sentrel::SR_DBusMessage, const sentrel::SR_DBusCallMessage&>(
                      boost::make_shared<sentrel::Callback<Served, sentrel::SR_DBusMessage,
                                                           const sentrel::SR_DBusCallMessage&> >(
                          this, &Served::Ask)));
    }

private:
    sentrel::SR_DBusMessage Ask(const sentrel::SR_DBusCallMessage& call) {
        handler(replies, sentrel::SR_DBusReturnAddress(call));
        return call;  // answered elsewhere
    }

    agent::Replies replies;
    Handler handler;
};

class AnswerTest : public ::testing::Test {
protected:
    // What another process does: asks once and writes down what it gets, and how much more came.
    static void Ask(int out, const std::string& destination, bool wantsReply) {
        DBusConnection* connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
        DBusMessage* call =
            dbus_message_new_method_call(destination.c_str(), "/served", kName, "Ask");
        std::string line = "sent\n";
        if (wantsReply) {
            DBusMessage* reply =
                dbus_connection_send_with_reply_and_block(connection, call, 10000, nullptr);
            const char* text = "no reply";
            if (reply != nullptr) {
                (void)dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text,
                                            DBUS_TYPE_INVALID);
            }
            line = std::string(text) + "\n";
        } else {
            dbus_message_set_no_reply(call, TRUE);
            (void)dbus_connection_send(connection, call, nullptr);
            dbus_connection_flush(connection);
        }
        // Everything that the bus has for us comes before the answer to this.
        (void)dbus_bus_name_has_owner(connection, kName, nullptr);
        int others = 0;
        while (DBusMessage* message = dbus_connection_pop_message(connection)) {
            const int type = dbus_message_get_type(message);
            others += type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
            dbus_message_unref(message);
        }
        line += std::to_string(others) + " more\n";
        (void)!write(out, line.data(), line.size());
    }

    // What the caller gets when `handler` sees its call.
    std::string Exchange(const Served::Handler& handler, bool wantsReply) {
        sentrel::SR_DBusDispatcher dispatcher;
        loop = &dispatcher;
        std::string result;
        TestPipe pipe;
        bool seen = false;
        {
            sentrel::SR_DBusConnection connection =
                sentrel::SR_DBusConnection::SystemBus(dispatcher);
            const std::string name = connection.GetUniqueName();
            const pid_t client = fork();
            if (client == 0) {
                Ask(pipe.writer.Get(), name, wantsReply);
                _exit(0);
            }
            const Served served(
                connection, [&](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                    seen = true;
                    handler(replies, to);
                });
            bool done = false;
            bool late = false;
            {
                const agent::Watch ready(dispatcher, pipe.reader.Get(), [&done] { done = true; });
                const auto limit = agent::Timer::Make(
                    dispatcher, std::chrono::steady_clock::now() + std::chrono::seconds(20),
                    [&late] { late = true; });
                late = !limit;
                while (!(done && seen) && !late) {
                    dispatcher.DispatchPending();
                    dispatcher.Dispatch();
                }
            }
            EXPECT_FALSE(late);
            kept.reset();  // before what it is sent through
            later.reset();
            result = ReadLines(pipe.reader.Get(), 2);
            EXPECT_EQ(waitpid(client, nullptr, 0), client);
        }
        return result;
    }

    test::PrivateBus bus;
    sentrel::SR_DBusDispatcher* loop = nullptr;
    std::unique_ptr<Answer> kept;
    std::unique_ptr<agent::Timer> later;
};

}  // namespace

TEST_F(AnswerTest, AnAnswerThatNobodySetIsAFailure) {
    EXPECT_EQ(Exchange(
                  [](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                      const Answer answer(replies, getuid(), to);
                  },
                  true),
              "1 0\n0 more\n");
}

TEST_F(AnswerTest, WhatWasSetLastIsSentOnce) {
    EXPECT_EQ(Exchange(
                  [](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                      Answer answer(replies, getuid(), to);
                      answer.Set(8, 0);
                      answer.Set(0, 137);
                  },
                  true),
              "0 137\n0 more\n");
}

TEST_F(AnswerTest, AnExceptionOnTheWayStillAnswersAndOnlyOnce) {
    EXPECT_EQ(Exchange(
                  [](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                      try {
                          const Answer answer(replies, getuid(), to);
                          throw std::runtime_error("on the way");
                      } catch (const std::runtime_error&) {
                      }
                  },
                  true),
              "1 0\n0 more\n");
}

TEST_F(AnswerTest, AnAnswerMayBeGivenLongAfterTheCallWasHandled) {
    EXPECT_EQ(Exchange(
                  [&](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                      kept = std::make_unique<Answer>(replies, getuid(), to);
                      kept->Set(0, 5);
                      auto timer = agent::Timer::Make(*loop, std::chrono::steady_clock::now(),
                                                      [&] { kept.reset(); });
                      ASSERT_TRUE(timer);
                      later = std::move(*timer);
                  },
                  true),
              "0 5\n0 more\n");
}

TEST_F(AnswerTest, ACallThatWantsNoReplyGetsNone) {
    EXPECT_EQ(Exchange(
                  [](agent::Replies& replies, const sentrel::SR_DBusReturnAddress& to) {
                      Answer answer(replies, getuid(), to);
                      answer.Set(0, 1);
                  },
                  false),
              "sent\n0 more\n");
}
