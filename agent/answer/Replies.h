// SPDX-License-Identifier: Apache-2.0
// The way out: sends what is answered, and keeps it within bounds.
//
// An answer that its caller does not read stays with the bus, and the bus holds only so much of one
// server's messages: beyond that it takes no more of them, whoever they are for. So what each
// user's open connections were sent and may not have read is counted, and from time to time the bus
// is asked how much of it is still there. A user with too much gets no further answer until it has
// read, or has gone. Where the bus does not tell, what was sent fades with time instead.
//
// Ownership: holds a copy of the connection handle. What was set by OnLeftAlone() is called on the
// loop's thread. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_REPLIES_H
#define SENTREL_AGENT_REPLIES_H

#include <sentrel/SR_DBusBacklog.h>
#include <sentrel/SR_DBusConnection.h>
#include <sentrel/SR_DBusReturnAddress.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace agent {

struct ReplyLimits {
    std::size_t ask = 262144;    // bytes that one user may have unread before the bus is asked
    std::size_t most = 1048576;  // and before it gets no more answers
    std::size_t mostOfRoot = 16777216;
    // What counts as read in a minute where the bus does not tell. It covers the answers to all
    // requests that a user may make; root is not counted, and gets more.
    std::size_t fade = 409600;
    std::size_t fadeOfRoot = 67108864;
    std::size_t questions = 64;            // in one round about one user
    std::chrono::milliseconds pause{100};  // between two rounds about one user
};

class Replies {
public:
    typedef std::function<void(uid_t uid, std::size_t bytes)> LeftAlone;

    explicit Replies(sentrel::SR_DBusConnection& connection_,
                     const ReplyLimits& limits = ReplyLimits());
    ~Replies();
    Replies(const Replies&) = delete;
    Replies& operator=(const Replies&) = delete;

    // Called once for each time that a user begins to be left without answers.
    void OnLeftAlone(const LeftAlone& leftAlone);
    // Queues a reply of about `size` bytes of text to a connection of that user's; does not block.
    // Nothing is sent when the caller waits for none, or is left alone.
    void Send(uid_t uid, const sentrel::SR_DBusReturnAddress& address,
              const sentrel::SR_DBusMessage& reply, std::size_t size);
    // That connection is gone, and what it did not read with it.
    void Forget(const std::string& busName);

private:
    struct Table;
    class Told;

    void Ask(uid_t uid);

    sentrel::SR_DBusConnection connection;
    std::shared_ptr<Table> table;
};

}  // namespace agent

#endif
