// SPDX-License-Identifier: Apache-2.0
// The object half of a served object: receives calls at an object path and answers them.
//
// A serving class derives from its SR_DBusIAdaptor interfaces first and from SR_DBusAdaptor last.
// A handler that wants to answer later returns the call itself, keeps a copy of it, and passes that
// to Reply() once; whoever kept the copy owes the reply.
// A call that carries descriptors is refused, since no argument could name them. A call without an
// interface reaches any member: do not rest a decision on the interface a caller had to name.
// From the first object on, both directions of its connection's socket are one event of the loop,
// so that a peer that takes no answers does not keep other callers' messages from being read.
// Ownership: holds a copy of the connection handle, which keeps the connection open. Destroy the
// object before the connection's dispatcher, and not from one of its own handlers.
// Threads: calls arrive on the thread that runs the dispatcher's loop, and are answered there.
#ifndef SENTREL_SR_DBUSADAPTOR_H
#define SENTREL_SR_DBUSADAPTOR_H

#include <string>

#include "SR_DBusConnection.h"
#include "SR_DBusInterface.h"
#include "SR_Export.h"

namespace sentrel {

// A method return for a received call, without arguments until some are appended.
class SR_EXPORT SR_DBusReturnMessage : public SR_DBusMessage {
public:
    // Addressed to the sender of `replyTo`.
    explicit SR_DBusReturnMessage(const SR_DBusMessage& replyTo);
};

class SR_EXPORT SR_DBusAdaptor : public virtual SR_DBusBaseAdaptor {
public:
    // Registers `path` on the connection. Throws SR_DBusException when it is taken there or memory
    // ends, and std::bad_alloc.
    SR_DBusAdaptor(SR_DBusConnection& connection, const std::string& path);
    // Takes the path back. Calls kept for a later answer stay valid, but Reply() is gone.
    ~SR_DBusAdaptor() override;

    // Sends `reply` unless `call` asked for none. Queues it; does not block. False when out of
    // memory.
    bool Reply(const SR_DBusMessage& call, const SR_DBusMessage& reply);

    // What the object answers to `call`, without sending it: for a call that an SR_DBusFilter took.
    // SR_DBusConnection::Send() sends it, if WantsReply(). When a handler answers later it is the
    // call itself, by its GetType() still a method call, and must not be sent. What a handler
    // throws becomes an error reply; throws std::bad_alloc.
    SR_DBusMessage Answer(const SR_DBusCallMessage& call);

    // Whether the caller waits for a reply to `call`.
    static bool WantsReply(const SR_DBusMessage& call);

    // Whether the bus is still there. Once false it stays false, and no more calls will arrive.
    bool Connected() const;

private:
    class SR_HIDDEN Impl;

    SR_DBusConnection servedConnection;
    std::string servedPath;
};

}  // namespace sentrel

#endif
