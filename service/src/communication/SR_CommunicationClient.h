// SPDX-License-Identifier: Apache-2.0
// One exchange with the agent: the proxy of its one method, and the call that turns everything that
// may happen on the way into a status code. Hidden. One object belongs to one call on one thread.
#ifndef SENTREL_SR_COMMUNICATIONCLIENT_H
#define SENTREL_SR_COMMUNICATIONCLIENT_H

#include <string>

#include "SR_DBusDispatcher.h"
#include "SR_DBusProxy.h"
#include "SR_Message.h"

namespace sentrel {

// The agent's object. The one bus name is both the interface's name and the destination.
class SR_CommunicationClient : public SR_DBusIProxy, public SR_DBusProxy {
public:
    SR_CommunicationClient(SR_DBusConnection& connection, const std::string& name,
                           const std::string& path);
    ~SR_CommunicationClient() override;

    // Blocks for the agent's reply and returns its first argument. Throws SR_DBusException.
    std::string CallCommand(const std::string& agent, const std::string& args, int descriptor);
};

class Communication {
public:
    // Opens a connection, asks `service`, closes the connection. Blocks. Returns 3 (COMM_OK) when
    // the agent's status is 0, else that status, or 5 or 6 for a failure of the exchange. Of
    // `response` only the return value is written, and only when a reply came.
    int SendMessage(const std::string& service, const Message& request, Message& response);

private:
    // Deliberate: nobody uses it, SendMessage makes its own (pinned by ApiTest,
    // "TheLogOfASuccessfulCallIsComplete").
    SR_DBusDispatcher dispatcher;
};

}  // namespace sentrel

#endif
