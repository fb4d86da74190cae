// SPDX-License-Identifier: Apache-2.0
// Answers the questions of the second interface: what would be decided, how the agent is, what it
// has mounted; and reloads the rules. Each answer is one JSON text.
//
// Nothing is owned. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_CONTROL_H
#define SENTREL_AGENT_CONTROL_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Requests.h"
#include "answer/Answer.h"
#include "gate/Service.h"
#include "rules/RuleStore.h"

namespace agent {

class Control : public QuestionTaker {
public:
    // Calls its argument when the rules have been loaded, or could not be.
    typedef std::function<void(const std::function<void(const LoadResult&)>&)> Reloader;

    Control(Requests& requests_, const RuleStore& store_, const Reloader& reload_);

    // The reply is kept until the answer is known.
    void Answer(const Question& question, const Caller& caller,
                const std::shared_ptr<TextReply>& reply) override;

private:
    std::string Test(const Question& question, const Caller& caller) const;
    std::string Status() const;
    std::string Loaded(const LoadResult& result) const;
    std::string Mounts() const;

    Requests& requests;
    const RuleStore& store;
    Reloader reload;
    std::chrono::steady_clock::time_point started;
};

}  // namespace agent

#endif
