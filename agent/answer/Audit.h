// SPDX-License-Identifier: Apache-2.0
// The record of what was asked and what came of it: one line before an operation and one after it,
// one line for a refusal. Text that a caller chose can neither end a line nor look like a field.
//
// Neither the log nor the stream is owned. Threads: one.
#ifndef SENTREL_AGENT_AUDIT_H
#define SENTREL_AGENT_AUDIT_H

#include <sys/types.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "base/Outcome.h"

namespace agent {

class LogQueue;

struct AuditRequest {
    std::uint64_t id = 0;
    uid_t uid = static_cast<uid_t>(-1);
    pid_t pid = 0;
    std::string executable;
    std::string operation;
    std::vector<std::string> arguments;  // as split; when that failed, the whole text as one
    bool split = true;
    std::string rule;  // FILE:LINE; empty: none
};

class Audit {
public:
    // With the facility authpriv, and for the journal with a field for each value.
    explicit Audit(LogQueue& log_);
    explicit Audit(std::ostream& out_);

    void Before(const AuditRequest& request);
    void After(const AuditRequest& request, const Outcome& outcome);
    // There is no way to turn this off.
    void Denied(const AuditRequest& request, int status, const std::string& reason);

    // Valid UTF-8 without control characters, in quotes: \xHH for every other byte, \" and \\.
    // What is longer than `cap` bytes is cut there and marked.
    static std::string Quote(const std::string& text, std::size_t cap);
    // The word with what follows the name of a password replaced by "***".
    static std::string Redact(const std::string& word, bool split);
    // Whether a request's arguments hold what a line does not show.
    static bool HidesSome(const AuditRequest& request);

private:
    class Line;
    void Write(const Line& line);

    LogQueue* log;
    std::ostream* out;
};

}  // namespace agent

#endif
