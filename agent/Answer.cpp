// SPDX-License-Identifier: Apache-2.0
#include "Answer.h"

#include <sentrel/SR_Status.h>

#include <cstdio>
#include <string>

namespace agent {

Answer::Answer(sentrel::SR_DBusAdaptor& adaptor, const sentrel::SR_DBusCallMessage& call)
    : sender(adaptor), asked(call), given(false) {}

Answer::~Answer() {
    try {
        Give(SR_FAIL, 0);
    } catch (...) {
        // No memory for a reply: the caller's wait ends with its own limit.
    }
}

void Answer::Give(int status, int returnValue) {
    if (given) {
        return;
    }
    sentrel::SR_DBusReturnMessage reply(asked);
    (void)reply.GetWriter().AppendString(std::to_string(status) + " " +
                                         std::to_string(returnValue));
    given = true;
    (void)sender.Reply(asked, reply);
    std::fprintf(stderr, "sentrel-agent: %s: status %d, return value %d\n", description.c_str(),
                 status, returnValue);
}

}  // namespace agent
