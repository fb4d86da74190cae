// SPDX-License-Identifier: Apache-2.0
// Who stands behind a bus name, in the bus's own word: a snapshot from one question to the bus.
//
// The ids are those of the moment at which that process connected; it may have changed them, or
// become another program, since. A value object: copies are independent. A handler of received
// calls uses Ask(): blocking there, it would read in ever more calls while it waits.
#ifndef SENTREL_SR_DBUSCREDENTIALS_H
#define SENTREL_SR_DBUSCREDENTIALS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "SR_Callback.h"
#include "SR_Export.h"

namespace sentrel {

class SR_DBusConnection;

class SR_EXPORT SR_DBusCredentials {
public:
    // Asks the bus; blocks. Throws SR_DBusException, with "...NameHasNoOwner" for a name that is
    // not on the bus.
    SR_DBusCredentials(SR_DBusConnection& connection, const std::string& busName);

    // Asks the bus and returns at once; the dispatcher's loop calls `answer` later, once, with the
    // credentials, or with null when the bus has none. They live during that call. When the bus or
    // the connection goes away first, `answer` is never called; it is released with the connection.
    // What it throws is dropped. False, and never a call, when out of memory or not connected.
    static bool Ask(SR_DBusConnection& connection, const std::string& busName,
                    const Slot<void, const SR_DBusCredentials*>& answer);

    // False when the bus does not say; the output is then left alone.
    bool GetUid(uid_t& uid) const;
    bool GetPid(pid_t& pid) const;
    // The primary group among them; empty when the bus does not say.
    const std::vector<gid_t>& GetGroups() const { return groups; }
    // The security module's label; empty when there is none.
    const std::string& GetLabel() const { return label; }

private:
    class SR_HIDDEN Impl;

    SR_HIDDEN SR_DBusCredentials();

    bool uidKnown;
    bool pidKnown;
    uid_t uid;
    pid_t pid;
    std::vector<gid_t> groups;
    std::string label;
};

}  // namespace sentrel

#endif
