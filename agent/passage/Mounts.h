// SPDX-License-Identifier: Apache-2.0
// The mounts that were made through the agent, as long as they are there. Kept in memory only: a
// new agent knows none of the old one's. Threads: one.
#ifndef SENTREL_AGENT_MOUNTS_H
#define SENTREL_AGENT_MOUNTS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace agent {

struct MountRecord {
    std::string target;
    std::string source;
    std::string type;
    std::string rule;
    uid_t uid = static_cast<uid_t>(-1);
    std::string since;  // UTC, "2026-01-31T12:00:00Z"
};

class Mounts {
public:
    // `since` is filled in here.
    void Add(MountRecord record);
    // The newest one on `target` was unmounted.
    void Remove(const std::string& target);
    // Those that are still there, oldest first.
    std::vector<MountRecord> List();

private:
    void DropGone();

    std::vector<MountRecord> records;
};

}  // namespace agent

#endif
