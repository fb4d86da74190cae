// SPDX-License-Identifier: Apache-2.0
// The one line that tells a refused caller why, on its own descriptor. Each keeps a relay's process
// until it is read, so there are only so many at a time; beyond that a refusal has no line.
//
// Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_REFUSALS_H
#define SENTREL_AGENT_REFUSALS_H

#include <map>
#include <memory>
#include <string>

#include "relay/Relay.h"

namespace agent {

class Refusals {
public:
    Refusals() : open(std::make_shared<Lines>()) {}

    // `relay` leads to an output of this uid's and nobody else uses it any more; nothing when null.
    void Say(uid_t uid, const std::shared_ptr<Relay>& relay, const std::string& reason);

private:
    struct Lines {
        std::map<uid_t, std::size_t> of;
        std::size_t all = 0;
    };

    std::shared_ptr<Lines> open;  // lines not read yet; relays may outlive this object
};

}  // namespace agent

#endif
