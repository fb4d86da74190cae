// SPDX-License-Identifier: Apache-2.0
// One exchange with the agent, below the C interface: how replies are read and failures mapped.
#include <gtest/gtest.h>

#include <climits>
#include <locale>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "Access.h"
#include "Fixture.h"
#include "SR_CommunicationClient.h"
#include "SR_DBusError.h"

namespace {

using sentrel::Communication;
using sentrel::Message;
using test::AgentProcess;
using test::Texts;

const int kPoison = 0x5EED;

class ExchangeTest : public test::BusTest {
protected:
    ExchangeTest() : request("text", 4), response("kept", 9) {
        request.SetAgent("sr_mknod");
        response.SetAgent("kept too");
        response.SetRv(kPoison);
    }

    int Send(const std::string& service = test::kService) {
        Communication communication;
        return communication.SendMessage(service, request, response);
    }

    // The lines at error level.
    static Texts Errors() {
        Texts result;
        for (const std::string& line : test::Brief(test::TakeLog())) {
            if (line[0] == 'E') {
                result.push_back(line);
            }
        }
        return result;
    }

    Message request;
    Message response;
};

struct Reading {
    const char* text;
    int code;
    int returnValue;
};

void PrintTo(const Reading& reading, std::ostream* out) {
    *out << "'" << reading.text << "'";
}

class ReplyTextTest : public ExchangeTest, public testing::WithParamInterface<Reading> {};

TEST_P(ReplyTextTest, IsReadAsStatusAndReturnValue) {
    AgentProcess agent({"--text", GetParam().text});
    EXPECT_EQ(GetParam().code, Send());
    EXPECT_EQ(GetParam().returnValue, response.GetRv());
    EXPECT_EQ("kept", response.Get());
    EXPECT_EQ(9, response.GetOutputStream());
    EXPECT_EQ("kept too", response.GetAgent());
    EXPECT_EQ("text", request.Get());
    bool logged = false;
    for (const test::LogLine& line : test::TakeLog()) {
        logged = logged || line.Body() == std::string("responseSerial: ") + GetParam().text;
    }
    EXPECT_TRUE(logged);
}

// A number that does not fit is the nearest int, and then nothing more is read; a text without a
// readable number counts as 0.
INSTANTIATE_TEST_SUITE_P(
    ExchangeTest, ReplyTextTest,
    testing::Values(Reading{"0 42", 3, 42}, Reading{"0 0", 3, 0}, Reading{"7 1", 7, 1},
                    Reading{"3 5", 3, 5}, Reading{"9 0", 9, 0}, Reading{"", 3, 0},
                    Reading{"abc", 3, 0}, Reading{"0", 3, 0}, Reading{"7", 7, 0},
                    Reading{"  \t\n 0   8", 3, 8}, Reading{"+0 +8", 3, 8}, Reading{"-1 -8", -1, -8},
                    Reading{"0 -42", 3, -42}, Reading{"0 42 and more", 3, 42},
                    Reading{"0 42x", 3, 42}, Reading{"0x10 5", 3, 0}, Reading{"010 5", 10, 5},
                    Reading{"0,5", 3, 0}, Reading{"0.5 1", 3, 0}, Reading{"4 x", 4, 0},
                    Reading{"- 1", 3, 0}, Reading{"2147483647 1", INT_MAX, 1},
                    Reading{"2147483648 1", INT_MAX, 0},
                    Reading{"99999999999999999999 1", INT_MAX, 0},
                    Reading{"-2147483648 1", INT_MIN, 1}, Reading{"-2147483649 1", INT_MIN, 0},
                    Reading{"0 2147483648", 3, INT_MAX}, Reading{"0 -2147483649", 3, INT_MIN}));

// A global locale that writes 1,234 for 1234, until destroyed.
class GroupingLocale {
public:
    GroupingLocale() : old(std::locale::global(std::locale(std::locale(), new Grouping))) {}
    ~GroupingLocale() { std::locale::global(old); }

private:
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale old;
};

TEST_F(ExchangeTest, TheProgramsLocaleDoesNotChangeHowNumbersAreRead) {
    AgentProcess agent({"--text", "0 1,234"});
    int code = 0;
    {
        const GroupingLocale locale;
        std::istringstream grouped("1,234");
        int number = 0;
        grouped >> number;
        ASSERT_EQ(1234, number) << "the locale does not group";
        code = Send();
    }
    EXPECT_EQ(3, code);
    EXPECT_EQ(1, response.GetRv());
}

TEST_F(ExchangeTest, OnlyTheFirstOfTwoArgumentsIsRead) {
    AgentProcess agent({"--reply", "two", "--text", "0 6"});
    EXPECT_EQ(3, Send());
    EXPECT_EQ(6, response.GetRv());
}

TEST_F(ExchangeTest, AMegabyteBehindTheNumbersIsIgnored) {
    AgentProcess agent({"--reply", "huge", "--text", "0 6"});
    EXPECT_EQ(3, Send());
    EXPECT_EQ(6, response.GetRv());
}

TEST_F(ExchangeTest, AReplyWithoutArgumentsIs6) {
    AgentProcess agent({"--reply", "none"});
    EXPECT_EQ(6, Send());
    EXPECT_EQ(kPoison, response.GetRv());
    EXPECT_EQ((Texts{"E SendMessage  service: org.sentrel.sr_agent has dbus error: type mismatch "
                     "(org.freedesktop.DBus.Error.InvalidArgs) for agent: sr_mknod"}),
              Errors());
}

TEST_F(ExchangeTest, AReplyOfAnotherTypeIs6) {
    AgentProcess agent({"--reply", "int", "--text", "0"});
    EXPECT_EQ(6, Send());
    EXPECT_EQ(kPoison, response.GetRv());
}

TEST_F(ExchangeTest, AnAbsentServiceIs5AndNamesTheAgent) {
    EXPECT_EQ(5, Send("org.sentrel.Nobody"));
    EXPECT_EQ(kPoison, response.GetRv());
    EXPECT_EQ((Texts{"E SendMessage  service: org.sentrel.Nobody has dbus error: The name "
                     "org.sentrel.Nobody was not provided by any .service files "
                     "(org.freedesktop.DBus.Error.ServiceUnknown) for agent: sr_mknod"}),
              Errors());
}

TEST_F(ExchangeTest, TheErrorNameAloneTells5From6) {
    struct Case {
        const char* name;
        int code;
    };
    const Case cases[] = {{"org.freedesktop.DBus.Error.ServiceUnknown", 5},
                          {"org.freedesktop.DBus.Error.ServiceUnknownX", 6},
                          {"org.freedesktop.DBus.Error.NameHasNoOwner", 6},
                          {"org.freedesktop.DBus.Error.NoReply", 6},
                          {"org.freedesktop.DBus.Error.AccessDenied", 6},
                          {"org.sentrel.Error.Own", 6}};
    for (const Case& each : cases) {
        AgentProcess agent({"--reply", "error", "--error", each.name, "--text", "why"});
        EXPECT_EQ(each.code, Send());
        EXPECT_EQ(kPoison, response.GetRv());
        EXPECT_EQ((Texts{std::string("E SendMessage  service: org.sentrel.sr_agent has dbus error: "
                                     "why (") +
                         each.name + ") for agent: sr_mknod"}),
                  Errors());
    }
}

TEST_F(ExchangeTest, TheServiceNameIsDestinationInterfaceAndPath) {
    AgentProcess agent({"--name", "org.sentrel.another.one"});
    EXPECT_EQ(3, Send("org.sentrel.another.one"));
    const std::string report = agent.NextReport();
    EXPECT_NE(std::string::npos,
              report.find(" destination=org.sentrel.another.one path=/org/sentrel/another/one "
                          "interface=org.sentrel.another.one member=CallCommand signature=ssi"))
        << report;
}

// What else may be thrown inside an exchange comes from allocations; here it is thrown out of the
// blocking call, which the linker leads to the wrapper at the end of this file.
enum class Thrown { kNothing, kStandard, kUnknown };

Thrown thrownByCall = Thrown::kNothing;

struct ThrowingCall {
    explicit ThrowingCall(Thrown kind) { thrownByCall = kind; }
    ~ThrowingCall() { thrownByCall = Thrown::kNothing; }
};

TEST_F(ExchangeTest, AStandardExceptionIs6) {
    AgentProcess agent;
    const ThrowingCall call(Thrown::kStandard);
    EXPECT_EQ(6, Send());
    EXPECT_EQ(kPoison, response.GetRv());
    EXPECT_EQ((Texts{"E SendMessage sarvice: org.sentrel.sr_agent has exception error: on purpose "
                     "for agent: sr_mknod"}),
              Errors());
}

TEST_F(ExchangeTest, AnUnknownExceptionIs6) {
    AgentProcess agent;
    const ThrowingCall call(Thrown::kUnknown);
    EXPECT_EQ(6, Send());
    EXPECT_EQ(kPoison, response.GetRv());
    EXPECT_EQ((Texts{"E SendMessage sarvice: org.sentrel.sr_agent has unknown exception error for "
                     "agent: sr_mknod"}),
              Errors());
}

}  // namespace

extern "C" DBusMessage* __real_dbus_connection_send_with_reply_and_block(DBusConnection*,
                                                                         DBusMessage*, int,
                                                                         DBusError*);
extern "C" DBusMessage* __wrap_dbus_connection_send_with_reply_and_block(DBusConnection* connection,
                                                                         DBusMessage* message,
                                                                         int timeout,
                                                                         DBusError* error) {
    if (thrownByCall == Thrown::kStandard) {
        throw std::runtime_error("on purpose");
    }
    if (thrownByCall == Thrown::kUnknown) {
        throw 42;
    }
    return __real_dbus_connection_send_with_reply_and_block(connection, message, timeout, error);
}
