// SPDX-License-Identifier: Apache-2.0
// Answers from a table instead of working: for trying out, on a desk, what a program does with each
// status. No rule is asked and no tool is ever started.
//
// A request finds its row as it arrives, waits for the row's delay, has a relay at the caller's
// descriptor if the row has an output, and then its answer. What waits for its delay is answered at
// once when the program ends. Wrong tables are refused whole, with a line for each mistake.
//
//   [[answer]]
//   agent  = "sr_mount"      # "*": every operation
//   text   = "*/media/*"     # optional; '*' is any text, '?' any character
//   status = 0
//   value  = 32              # optional, as are the next two
//   delay  = 500             # milliseconds
//   output = "mount: no such device"
//
// The first row that fits answers; when none does, the status is 7. The loop is not owned and must
// outlive the object. Threads: the loop's.
#ifndef SENTREL_AGENT_MOCK_H
#define SENTREL_AGENT_MOCK_H

#include <sentrel/SR_MainLoop.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Events.h"
#include "decide/Pattern.h"
#include "gate/Service.h"
#include "relay/Relay.h"

namespace agent {

struct MockRow {
    std::string operation;
    Pattern text = Pattern(Pattern::kTextGlob, "*");
    int status = SR_OK;
    int value = 0;
    std::chrono::milliseconds delay{0};
    std::string output;
};

struct MockTable {
    std::vector<MockRow> rows;
    std::vector<std::string> errors;  // "FILE:LINE: sentence"; with one of them it cannot be used
};

MockTable ReadMockTable(const std::string& file);

class Mock : public RequestTaker, public QuestionTaker {
public:
    Mock(sentrel::SR_MainLoop& loop_, const std::vector<MockRow>& rows_);

    void Take(const Arrival& arrival) override;
    // There is no audit: what is refused before it is a request is not written down.
    void TakeUnknown(const std::string& /*sender*/, const std::optional<Call>& /*call*/,
                     const std::string& /*reason*/) override {}
    void TakeTooMany(uid_t /*uid*/) override {}
    void TakeLeftAlone(uid_t /*uid*/, std::size_t /*unreadBytes*/) override {}
    void Answer(const Question& question, const Caller& caller,
                const std::shared_ptr<TextReply>& reply) override;
    // What is delayed is answered now.
    void EndAll();
    // Whether every answer has been given.
    bool Settled() const { return printing.empty(); }

private:
    struct Delayed {
        Arrival arrival;
        MockRow row;
        std::unique_ptr<Timer> timer;
    };

    struct Printing {
        SharedAnswer answer;
        MockRow row;
    };

    void Due(std::uint64_t id);
    void Give(const Arrival& arrival, const MockRow& row);
    void Print(std::uint64_t id, const CallerFacts& facts);

    sentrel::SR_MainLoop& loop;
    std::vector<MockRow> rows;
    Relays relays;
    std::map<std::uint64_t, Delayed> delayed;
    std::map<std::uint64_t, Printing> printing;  // to the caller's descriptor
    std::uint64_t lastId = 0;
    std::uint64_t served = 0;
};

}  // namespace agent

#endif
