// SPDX-License-Identifier: Apache-2.0
// The library's own lines: in the system's log as before, but without ever waiting for it. They
// have a queue of their own, so that they take no room from the audit. Where the platform has a log
// of its own, the lines stay there.
//
// One object at a time. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_LIBRARYLOG_H
#define SENTREL_AGENT_LIBRARYLOG_H

#include "answer/Log.h"

namespace agent {

class LibraryLog {
public:
    explicit LibraryLog(sentrel::SR_MainLoop& loop);
    LibraryLog(const LibraryLog&) = delete;
    LibraryLog& operator=(const LibraryLog&) = delete;
    ~LibraryLog();

private:
    class Nowhere : public LogQueue {
    public:
        Nowhere() : LogQueue(LogLimits()) {}

    protected:
        Offered Offer(LogEntry& /*entry*/) override { return Offered::kTaken; }
        int Descriptor() const override { return -1; }
    };

    Nowhere nowhere;  // without a log they are dropped: standard error is for the agent's own
    SystemLog log;
    AttachedLog attached;
};

}  // namespace agent

#endif
