// SPDX-License-Identifier: Apache-2.0
// The third room: whether a request may be carried out. Only a Decider can make a Permit, and only
// with a Permit does the Runner start a tool.
//
// In this version there are no rules: everything is refused, unless the agent was started with
// --allow-all.
#ifndef SENTREL_AGENT_DECIDER_H
#define SENTREL_AGENT_DECIDER_H

#include <optional>

namespace agent {

class Permit {
private:
    friend class Decider;
    Permit() {}
};

class Decider {
public:
    explicit Decider(bool allowEverything) : allowAll(allowEverything) {}

    // Nothing means no.
    std::optional<Permit> Decide() const {
        return allowAll ? std::optional<Permit>(Permit()) : std::nullopt;
    }

private:
    bool allowAll;
};

}  // namespace agent

#endif
