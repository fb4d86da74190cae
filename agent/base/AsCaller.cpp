// SPDX-License-Identifier: Apache-2.0
#include "AsCaller.h"

#include <grp.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "Process.h"

namespace agent {

namespace {

const gid_t kNobody = 65534;

// While it lives, this thread asks the kernel with the caller's rights.
class Moment {
public:
    Moment(uid_t uid, gid_t gid, const std::vector<gid_t>& groups)
        : active(geteuid() == 0), parent(getppid()) {
        if (!active) {
            ready = true;
            return;
        }
        (void)prctl(PR_GET_PDEATHSIG, &deathSignal);
        // The groups while there still is the capability for it.
        if (!KeepGroups() || setgroups(groups.size(), groups.data()) != 0) {
            return;
        }
        groupsChanged = true;
        DropPtrace(uid);
        // The user last: from then on the kernel gives no file's right that is not the caller's.
        oldGroup = static_cast<gid_t>(setfsgid(gid));
        oldUser = static_cast<uid_t>(setfsuid(uid));
        changed = true;
        // setfsuid reports no failure; asking again tells.
        ready = static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == uid &&
                static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == gid;
    }
    Moment(const Moment&) = delete;
    Moment& operator=(const Moment&) = delete;
    ~Moment() {
        if (!active) {
            return;
        }
        if (changed) {
            // The user first: it brings back the capabilities that the rest may need.
            (void)setfsuid(oldUser);
            (void)setfsgid(oldGroup);
        }
        // One that went on with the wrong rights could do anything.
        if ((changed && (static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) != oldUser ||
                         static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) != oldGroup)) ||
            (dropped && syscall(SYS_capset, &header, kept) != 0) ||
            (groupsChanged && setgroups(oldGroups.size(), oldGroups.data()) != 0)) {
            abort();
        }
        DieAgain();
    }

    bool IsReady() const { return ready; }

private:
    bool KeepGroups() {
        const int count = getgroups(0, nullptr);
        oldGroups.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return count >= 0 && getgroups(count, oldGroups.data()) == count;
    }

    // With CAP_SYS_PTRACE the kernel would let us look into anything. For a root caller it stays:
    // without it the kernel lets nobody look into a process with more capabilities than its own,
    // and there is nothing that root could gain.
    void DropPtrace(uid_t uid) {
        if (uid == 0 || syscall(SYS_capget, &header, kept) != 0) {
            return;
        }
        __user_cap_data_struct reduced[2] = {kept[0], kept[1]};
        reduced[0].effective &= ~(1U << CAP_SYS_PTRACE);
        dropped = syscall(SYS_capset, &header, reduced) == 0;
        if (!dropped) {
            abort();
        }
    }

    // The change of ids took the death signal back. A parent that died in between has sent none.
    void DieAgain() const {
        if (deathSignal != 0 && !DieWith(parent)) {
            _exit(1);
        }
    }

    bool active;
    bool ready = false;
    bool changed = false;
    bool dropped = false;
    bool groupsChanged = false;
    pid_t parent;
    int deathSignal = 0;
    uid_t oldUser = 0;
    gid_t oldGroup = 0;
    std::vector<gid_t> oldGroups;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct kept[2] = {};
};

}  // namespace

gid_t GroupOf(const Caller& caller) {
    return caller.groups.empty() ? kNobody : caller.groups.front();
}

OwnedFd OpenAsCaller(uid_t uid, gid_t gid, const std::vector<gid_t>& groups,
                     const std::function<OwnedFd()>& open) {
    const Moment moment(uid, gid, groups);
    return moment.IsReady() ? open() : OwnedFd();
}

bool BecomeCaller(const Caller& caller) {
    if (geteuid() == 0) {
        const gid_t group = GroupOf(caller);
        // Of each kind all three ids: one that is left behind could be taken again. Groups first,
        // as without the user they cannot be set any more. -1 would mean "leave it as it is".
        if (caller.uid == static_cast<uid_t>(-1) ||
            setgroups(caller.groups.size(), caller.groups.data()) != 0 ||
            setresgid(group, group, group) != 0 ||
            setresuid(caller.uid, caller.uid, caller.uid) != 0) {
            return false;
        }
    } else if (geteuid() != caller.uid) {
        return false;
    }
    // A root caller's process loses its capabilities here, and nothing gives them back.
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

}  // namespace agent
