// SPDX-License-Identifier: Apache-2.0
#include "Strangers.h"

#include <sentrel/SR_Status.h>

namespace agent {

Strangers::Strangers(sentrel::SR_MainLoop& loop_, Audit& audit_) : loop(loop_), audit(audit_) {}

Strangers::~Strangers() {
    Flush();
}

void Strangers::Unknown(const std::function<AuditRequest()>& describe, const std::string& reason) {
    if (written < kLines) {
        ++written;
        audit.Denied(describe(), SR_FAIL, reason);
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
    Result<std::unique_ptr<Timer> > timer = Timer::Make(
        loop, std::chrono::steady_clock::now() + std::chrono::seconds(1), [this] { Flush(); });
    if (!timer) {
        return Flush();  // better too many lines than none
    }
    second = std::move(*timer);
}

void Strangers::Flush() {
    if (left > 0) {
        audit.Denied(AuditRequest(), SR_FAIL,
                     std::to_string(left) + " more messages of senders that are not known");
    }
    for (const auto& user : away) {
        AuditRequest request;
        request.uid = user.first;
        audit.Denied(
            request, SR_FAIL,
            "too many calls in a minute: " + std::to_string(user.second) + " turned away unread");
    }
    away.clear();
    written = 0;
    left = 0;
    second.reset();
}

}  // namespace agent
