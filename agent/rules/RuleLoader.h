// SPDX-License-Identifier: Apache-2.0
// Loads the rules anew without holding up the loop: a process of its own reads the files and asks
// the account database for the names in them, which may take long or for ever. What it found comes
// back over a pipe, and the rules are read from that.
//
// Ownership: loop and store are not owned and must outlive it. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_RULELOADER_H
#define SENTREL_AGENT_RULELOADER_H

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "RuleStore.h"
#include "base/Events.h"

namespace agent {

class RuleLoader {
public:
    typedef std::function<void(const LoadResult&)> Done;
    // Runs in the process; its result is what the rules are read from.
    typedef std::function<RuleSource()> Reader;

    // A load that takes longer than `limit_` is given up.
    RuleLoader(sentrel::SR_MainLoop& loop_, RuleStore& store_, std::chrono::milliseconds limit_);
    RuleLoader(sentrel::SR_MainLoop& loop_, RuleStore& store_, std::chrono::milliseconds limit_,
               const Reader& reader_);
    RuleLoader(const RuleLoader&) = delete;
    RuleLoader& operator=(const RuleLoader&) = delete;
    ~RuleLoader();

    // `done` is called once, from the loop. Files that change after this call may or may not be
    // seen; what changed before it is. With errors in the result, the store is as it was.
    void Load(const Done& done);

private:
    class Process;

    void Start();
    void Ended(const LoadResult& result);

    sentrel::SR_MainLoop& loop;
    RuleStore& store;
    std::chrono::milliseconds limit;
    Reader reader;
    std::shared_ptr<Process> process;            // null: nothing is under way
    std::vector<Done> waiting;                   // for the process
    std::vector<Done> later;                     // for the next one
    std::list<std::shared_ptr<Process> > dying;  // killed, and not ended yet
};

}  // namespace agent

#endif
