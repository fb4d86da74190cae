// SPDX-License-Identifier: Apache-2.0
// The audit of requests that are refused before anybody knows who asks. They cost a caller nothing
// and fall under no quota, so only a few lines are written in a second, and then how many more
// there were.
//
// Loop and audit are not owned and must outlive the object. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_STRANGERS_H
#define SENTREL_AGENT_STRANGERS_H

#include <memory>
#include <string>

#include "Audit.h"
#include "Events.h"

namespace agent {

class Strangers {
public:
    static const std::size_t kLines = 5;  // in a second

    Strangers(sentrel::SR_MainLoop& mainLoop, Audit& requestAudit);
    ~Strangers();
    Strangers(const Strangers&) = delete;
    Strangers& operator=(const Strangers&) = delete;

    void Refused(const AuditRequest& request, int status, const std::string& reason);

private:
    void SecondOver();

    sentrel::SR_MainLoop& loop;
    Audit& audit;
    std::unique_ptr<Timer> second;
    std::size_t written = 0;
    std::size_t left = 0;
};

}  // namespace agent

#endif
