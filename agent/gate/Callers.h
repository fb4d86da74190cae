// SPDX-License-Identifier: Apache-2.0
// Who stands behind a bus name, asked of the bus without waiting. Every question that is open makes
// the reading of each message slower, so there is only one for a name, only so many for all, and
// the bus's answers are kept: a name belongs to one connection for ever, and what the bus says of
// it does not change.
//
// Ownership: what is to be called is kept here until the bus has answered; the destructor calls
// nothing. The connection is not owned and must outlive the object.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_CALLERS_H
#define SENTREL_AGENT_CALLERS_H

#include <sentrel/SR_DBusConnection.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/Caller.h"

namespace agent {

struct CallerLimits {
    std::size_t ofOne = 524288;     // bytes of what waits for the answer about one name
    std::size_t waiting = 2097152;  // and for any
    std::size_t all = 256;          // open questions to the bus
    std::size_t kept = 1024;        // answers; the ones not used longest go first
};

class Callers {
public:
    typedef std::function<void(const Caller&)> Known;
    typedef std::function<void(const std::string& reason)> Unknown;

    explicit Callers(sentrel::SR_DBusConnection& connection_,
                     const CallerLimits& limits = CallerLimits());
    ~Callers();
    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    // Calls one of the two once, at once or later; neither when the connection goes first. The
    // caller's executable is left empty. `size`: what is kept for it meanwhile, in bytes.
    void Ask(const std::string& sender, std::size_t size, const Known& known,
             const Unknown& unknown);
    // What is kept of the bus's answer; null when nothing is. Until the next call of the object.
    const Caller* Find(const std::string& sender);
    // The name's connection is gone.
    void Forget(const std::string& sender);

private:
    class Reply;
    struct Table;

    sentrel::SR_DBusConnection& connection;
    std::shared_ptr<Table> table;
};

}  // namespace agent

#endif
