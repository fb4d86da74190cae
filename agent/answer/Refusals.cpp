// SPDX-License-Identifier: Apache-2.0
#include "Refusals.h"

namespace agent {

namespace {

const std::size_t kMostOfOne = 8;
const std::size_t kMost = 128;

}  // namespace

void Refusals::Say(uid_t uid, const std::shared_ptr<Relay>& relay, const std::string& reason) {
    if (!relay || relay->Ended()) {
        return;
    }
    const auto own = open->of.find(uid);
    if (open->all >= kMost || (own != open->of.end() && own->second >= kMostOfOne)) {
        relay->Kill();
        return;
    }
    ++open->of[uid];
    ++open->all;
    const std::shared_ptr<Lines> kept = open;
    relay->OnEnd([kept, uid] {
        --kept->all;
        if (--kept->of[uid] == 0) {
            kept->of.erase(uid);
        }
    });
    relay->Say("sentrel-agent: " + reason);
    relay->Abandon();
}

}  // namespace agent
