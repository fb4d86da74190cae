// SPDX-License-Identifier: Apache-2.0
// The audit of messages that are refused without being looked at: those of senders whom nobody
// knows, and those that are too many of one user. They cost a caller nothing, so only a few lines
// are written in a second, and then how many more there were.
//
// Loop and audit are not owned and must outlive the object. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_STRANGERS_H
#define SENTREL_AGENT_STRANGERS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Audit.h"
#include "base/Events.h"

namespace agent {

class Strangers {
public:
    static const std::size_t kLines = 5;  // in a second

    Strangers(sentrel::SR_MainLoop& loop_, Audit& audit_);
    ~Strangers();
    Strangers(const Strangers&) = delete;
    Strangers& operator=(const Strangers&) = delete;

    // Nobody knows whose it is. `describe` is called for those that get a line.
    void Unknown(const std::function<AuditRequest()>& describe, const std::string& reason);
    // One too many of that user's.
    void TooMany(uid_t uid);
    // Writes at once what would be written when the second is over.
    void Flush();

private:
    void StartSecond();

    sentrel::SR_MainLoop& loop;
    Audit& audit;
    std::unique_ptr<Timer> second;
    std::size_t written = 0;
    std::size_t left = 0;
    std::map<uid_t, std::uint64_t> away;
};

}  // namespace agent

#endif
