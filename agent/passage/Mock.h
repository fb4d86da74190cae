// SPDX-License-Identifier: Apache-2.0
// Answers from a table instead of working: for trying out, on a desk, what a program does with each
// status. No rule is asked and no tool is ever started.
//
//   [[answer]]
//   agent  = "sr_mount"      # "*": every agent
//   text   = "*/media/*"     # optional; '*' is any text, '?' any character
//   status = 0
//   value  = 32              # optional, as are the next two
//   delay  = 500             # milliseconds
//   output = "mount: no such device"
//
// The first row that fits answers; when none does, the status is 7. Threads: the loop's.
#ifndef SENTREL_AGENT_MOCK_H
#define SENTREL_AGENT_MOCK_H

#include <sentrel/SR_MainLoop.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Events.h"
#include "gate/Service.h"
#include "relay/Relay.h"

namespace agent {

struct MockRow {
    std::string operation;
    std::string text = "*";
    int status = 0;
    int value = 0;
    std::chrono::milliseconds delay{0};
    std::string output;
};

// False with "FILE:LINE: sentence" lines in `errors`.
bool ReadMockTable(const std::string& file, std::vector<MockRow>& rows,
                   std::vector<std::string>& errors);

class Mock {
public:
    Mock(sentrel::SR_MainLoop& mainLoop, const std::vector<MockRow>& table);

    void Take(const Arrival& arrival);
    void Answer(const Question& question, const Caller& caller, TextReply& reply) const;
    // What is delayed is answered now.
    void EndAll();
    // Whether every answer has been given.
    bool Settled() const { return looking.empty(); }

private:
    struct Delayed {
        Arrival arrival;
        MockRow row;
        std::unique_ptr<Timer> timer;
    };

    struct Looking {
        SharedAnswer answer;
        MockRow row;
    };

    void Give(const Arrival& arrival, const MockRow& row);
    void Looked(std::uint64_t id, const Look& look);
    void Due(std::uint64_t id);

    sentrel::SR_MainLoop& loop;
    std::vector<MockRow> rows;
    Relays relays;
    std::map<std::uint64_t, Delayed> delayed;
    std::map<std::uint64_t, Looking> looking;  // at the caller's descriptor
    std::uint64_t lastId = 0;
    std::uint64_t served = 0;
};

}  // namespace agent

#endif
