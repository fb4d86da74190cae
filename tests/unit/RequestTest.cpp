// SPDX-License-Identifier: Apache-2.0
// What the exported functions hand to the exchange, and what they make of its answer: the exchange
// is the program's own and writes down what it is given.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogRecorder.h"
#include "SR_API.h"
#include "SR_CommunicationClient.h"
#include "SR_Message.h"

namespace {

struct Exchange {
    std::string service;
    sentrel::Message request;
    sentrel::Message response;
};
std::vector<Exchange> exchanges;
int code = 0;         // what the exchange returns
int returnValue = 0;  // what it stores

}  // namespace

namespace sentrel {

int Communication::SendMessage(const std::string& service, const Message& request,
                               Message& response) {
    exchanges.push_back(Exchange{service, request, response});
    response.SetRv(returnValue);
    return code;
}

}  // namespace sentrel

namespace {

typedef int (*Function)(const char*, unsigned int, int, int*);

class RequestTest : public testing::Test {
protected:
    RequestTest() {
        exchanges.clear();
        code = 3;
        returnValue = 0;
        test::TakeLog();
    }
};

TEST_F(RequestTest, EachFunctionAsksTheAgentForItsOwnName) {
    const struct {
        Function function;
        const char* agent;
    } table[] = {{SR_Mount, "sr_mount"},           {SR_Umount, "sr_umount"},
                 {SR_Mount_Cifs, "sr_mount_cifs"}, {SR_Umount_Cifs, "sr_umount_cifs"},
                 {SR_Mknod, "sr_mknod"},           {SR_Insmod, "sr_insmod"},
                 {SR_Rmmod, "sr_rmmod"},           {SR_Systemctl, "sr_systemctl"}};
    for (const auto& row : table) {
        exchanges.clear();
        EXPECT_EQ(0, row.function("text", 4, 17, nullptr));
        ASSERT_EQ(1u, exchanges.size()) << row.agent;
        EXPECT_EQ("org.sentrel.sr_agent", exchanges[0].service);
        EXPECT_EQ(row.agent, exchanges[0].request.GetAgent());
        EXPECT_EQ("text", exchanges[0].request.Get());
        EXPECT_EQ(17, exchanges[0].request.GetOutputStream());
        EXPECT_EQ("", exchanges[0].request.GetOutputStreamPath());
        EXPECT_EQ(0, exchanges[0].request.GetRv());
    }
}

TEST_F(RequestTest, AllLengthBytesArePutIntoTheRequest) {
    const char text[] = "ab\0cd and more";
    EXPECT_EQ(0, SR_Mount(text, 5, 1, nullptr));
    EXPECT_EQ(0, SR_Mount(text, 0, -1, nullptr));
    ASSERT_EQ(2u, exchanges.size());
    EXPECT_EQ(std::string("ab\0cd", 5), exchanges[0].request.Get());
    EXPECT_EQ("", exchanges[1].request.Get());
    EXPECT_EQ(-1, exchanges[1].request.GetOutputStream());
}

TEST_F(RequestTest, TheResponseIsGivenEmpty) {
    EXPECT_EQ(0, SR_Mount("text", 4, 17, nullptr));
    ASSERT_EQ(1u, exchanges.size());
    const sentrel::Message& response = exchanges[0].response;
    EXPECT_EQ("", response.Get());
    EXPECT_EQ(-1, response.GetOutputStream());
    EXPECT_EQ("", response.GetOutputStreamPath());
    EXPECT_EQ("", response.GetAgent());
    EXPECT_EQ(0, response.GetRv());
}

TEST_F(RequestTest, TheReturnValueIsHandedOutOnlyWhenTheExchangeSucceeded) {
    const int codes[] = {3, 5, 6, 9, -4};
    for (const int answer : codes) {
        code = answer;
        returnValue = 42;
        int result = -77;
        EXPECT_EQ(answer == 3 ? 0 : answer, SR_Rmmod("text", 4, 1, &result));
        EXPECT_EQ(answer == 3 ? 42 : -77, result) << answer;
    }
    EXPECT_EQ(5u, exchanges.size()) << "asked once each, whatever came of it";
}

TEST_F(RequestTest, NullArgumentsAreNotAskedFor) {
    EXPECT_EQ(6, SR_Mount(nullptr, 5, 1, nullptr));
    EXPECT_TRUE(exchanges.empty());
    EXPECT_TRUE(test::TakeLog().empty());
}

}  // namespace
