// SPDX-License-Identifier: Apache-2.0
#include "Strangers.h"

namespace agent {

Strangers::Strangers(sentrel::SR_MainLoop& mainLoop, Audit& requestAudit)
    : loop(mainLoop), audit(requestAudit) {}

Strangers::~Strangers() {
    SecondOver();
}

void Strangers::Refused(const AuditRequest& request, int status, const std::string& reason) {
    if (!second) {
        try {
            second = std::make_unique<Timer>(
                loop, std::chrono::steady_clock::now() + std::chrono::seconds(1),
                [this] { SecondOver(); });
        } catch (const std::system_error&) {
            SecondOver();  // better too many lines than none
        }
    }
    if (written < kLines) {
        ++written;
        audit.Denied(request, status, reason);
    } else {
        ++left;
    }
}

void Strangers::SecondOver() {
    if (left > 0) {
        audit.Denied(AuditRequest(), 1,
                     std::to_string(left) + " more requests of callers that are not known");
    }
    written = 0;
    left = 0;
    second.reset();
}

}  // namespace agent
