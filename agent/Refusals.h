// SPDX-License-Identifier: Apache-2.0
// The one line that tells a refused caller why, on its own descriptor. Each takes a relay's process
// until it is read, so there are only so many at a time; beyond that a refusal has no line.
//
// The relays are not owned and must outlive the object. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_REFUSALS_H
#define SENTREL_AGENT_REFUSALS_H

#include <map>
#include <memory>
#include <string>

#include "OwnedFd.h"
#include "Permit.h"
#include "Relay.h"

namespace agent {

class Refusals {
public:
    explicit Refusals(Relays& agentRelays);

    // Nothing when there is no descriptor.
    void Say(const Caller& caller, OwnedFd&& output, const std::string& reason);

private:
    typedef std::map<uid_t, std::size_t> Counts;

    Relays& relays;
    std::shared_ptr<Counts> counts;  // of lines not read yet; relays may outlive this object
};

}  // namespace agent

#endif
