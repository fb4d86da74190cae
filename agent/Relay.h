// SPDX-License-Identifier: Apache-2.0
// The relay: a child of its own that copies output from the agent's pipe to the caller's
// descriptor, with the caller's rights. So whatever the caller hands in, neither the tool nor the
// agent ever writes to it or waits for it.
#ifndef SENTREL_AGENT_RELAY_H
#define SENTREL_AGENT_RELAY_H

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace agent {

// More output than this from one request is dropped, and a last line says so.
const std::size_t kMostOutput = 1024 * 1024;

// For how long the relay tries to get rid of what it holds once there is no more to come.
const int kLastWritesMilliseconds = 500;

struct RelayStart {
    int input = -1;   // the read end of the agent's pipe
    int output = -1;  // the caller's descriptor
    int end = -1;     // reads end-of-file when the tool has ended
    uid_t uid = 0;
    std::vector<gid_t> groups;
};

// Copies until `input` is at its end, or `end` is and what was there has been copied. Returns an
// exit code. For the body of a Child.
int BecomeRelay(const RelayStart& start, pid_t agentPid);

}  // namespace agent

#endif
