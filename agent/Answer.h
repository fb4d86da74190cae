// SPDX-License-Identifier: Apache-2.0
// The one answer that a call gets: sent when this object goes, whatever happened until then.
//
// Ownership: holds its own reference on the call. The adaptor is not owned and must outlive it.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_ANSWER_H
#define SENTREL_AGENT_ANSWER_H

#include <sentrel/SR_DBusAdaptor.h>

namespace agent {

class Answer {
public:
    Answer(sentrel::SR_DBusAdaptor& servingAdaptor,
           const sentrel::SR_DBusCallMessage& receivedCall);
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
    // Sends what was set last; status 1 when nothing was. A caller that wants no reply gets none.
    ~Answer();

    void Set(int newStatus, int newValue);

private:
    sentrel::SR_DBusAdaptor& adaptor;
    const sentrel::SR_DBusCallMessage call;
    int status;
    int value;
};

}  // namespace agent

#endif
