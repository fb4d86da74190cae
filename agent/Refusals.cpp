// SPDX-License-Identifier: Apache-2.0
#include "Refusals.h"

namespace agent {

namespace {

const std::size_t kMostOfOne = 8;
const std::size_t kMostRelays = 128;

}  // namespace

Refusals::Refusals(Relays& agentRelays) : relays(agentRelays), counts(std::make_shared<Counts>()) {}

void Refusals::Say(const Caller& caller, OwnedFd&& output, const std::string& reason) {
    OwnedFd destination(std::move(output));
    const auto count = counts->find(caller.uid);
    if (!destination || relays.Count() >= kMostRelays ||
        (count != counts->end() && count->second >= kMostOfOne)) {
        return;
    }
    const std::shared_ptr<Relay> relay = relays.Start(std::move(destination), caller);
    if (!relay) {
        return;
    }
    ++(*counts)[caller.uid];
    const std::shared_ptr<Counts> kept = counts;
    const uid_t uid = caller.uid;
    relay->OnEnd([kept, uid] {
        if (--(*kept)[uid] == 0) {
            kept->erase(uid);
        }
    });
    relay->Say("sentrel-agent: " + reason);
    relay->Abandon();
}

}  // namespace agent
