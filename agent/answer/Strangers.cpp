// SPDX-License-Identifier: Apache-2.0
#include "Strangers.h"

namespace agent {

Strangers::Strangers(sentrel::SR_MainLoop& mainLoop, Audit& requestAudit)
    : loop(mainLoop), audit(requestAudit) {}

Strangers::~Strangers() {
    Flush();
}

void Strangers::Unknown(const std::function<AuditRequest()>& describe, const std::string& reason) {
    if (written < kLines) {
        ++written;
        audit.Denied(describe(), 1, reason);
    } else {
        ++left;
    }
    StartSecond();
}

void Strangers::TooMany(uid_t uid) {
    ++away[uid];
    StartSecond();
}

void Strangers::StartSecond() {
    if (second) {
        return;
    }
    try {
        second = std::make_unique<Timer>(
            loop, std::chrono::steady_clock::now() + std::chrono::seconds(1), [this] { Flush(); });
    } catch (const std::system_error&) {
        Flush();  // better too many lines than none
    }
}

void Strangers::Flush() {
    if (left > 0) {
        audit.Denied(AuditRequest(), 1,
                     std::to_string(left) + " more messages of senders that are not known");
    }
    for (const auto& user : away) {
        AuditRequest request;
        request.uid = user.first;
        audit.Denied(
            request, 1,
            "too many calls in a minute: " + std::to_string(user.second) + " turned away unread");
    }
    away.clear();
    written = 0;
    left = 0;
    second.reset();
}

}  // namespace agent
