// SPDX-License-Identifier: Apache-2.0
#include "Answer.h"

#include <sentrel/SR_Status.h>

#include <exception>
#include <string>

namespace agent {

Answer::Answer(sentrel::SR_DBusAdaptor& servingAdaptor,
               const sentrel::SR_DBusCallMessage& receivedCall)
    : adaptor(servingAdaptor), call(receivedCall), status(SR_FAIL), value(0) {}

Answer::~Answer() {
    try {
        sentrel::SR_DBusReturnMessage reply(call);
        if (reply.GetWriter().AppendString(std::to_string(status) + " " + std::to_string(value))) {
            (void)adaptor.Reply(call, reply);
        }
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void Answer::Set(int newStatus, int newValue) {
    status = newStatus;
    value = newValue;
}

}  // namespace agent
