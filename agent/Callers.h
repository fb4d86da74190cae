// SPDX-License-Identifier: Apache-2.0
// Who stands behind a bus name, asked of the bus without waiting, and only so many at a time.
//
// Ownership: what is to be called is kept here until the bus has answered; the destructor calls
// nothing. The connection is not owned and must outlive the object.
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_CALLERS_H
#define SENTREL_AGENT_CALLERS_H

#include <sentrel/SR_DBusConnection.h>

#include <functional>
#include <memory>
#include <string>

#include "Permit.h"

namespace agent {

struct CallerLimits {
    std::size_t ofOne = 64;  // questions about one name that wait for the bus
    std::size_t all = 2048;
};

class Callers {
public:
    typedef std::function<void(const Caller&)> Known;

    explicit Callers(sentrel::SR_DBusConnection& bus, const CallerLimits& limits = CallerLimits());
    ~Callers();
    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    // Calls `known` later, once, unless the bus does not say: then it is dropped. False, and it is
    // dropped at once, when too many wait.
    bool Ask(const std::string& sender, const Known& known);

private:
    class Reply;
    struct Table;

    sentrel::SR_DBusConnection& connection;
    std::shared_ptr<Table> table;
};

}  // namespace agent

#endif
