// SPDX-License-Identifier: Apache-2.0
//
// How the relay works. It reads whenever there is something to read, so that the tool is never held
// up, and keeps at most kMostOutput bytes. It writes only when poll(2) says that there is room, and
// then no more than a pipe takes without blocking; the caller's descriptor itself is never made
// non-blocking, because that flag is the caller's too. A write that blocks all the same (another
// writer was faster) holds up nobody but the relay, which the agent kills when its time is over.

#include "Relay.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <string>

namespace agent {

namespace {

typedef std::chrono::steady_clock Clock;

bool DropCapabilities() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

// From here on the process may do what the caller may, at most.
bool TakeRights(const RelayStart& start) {
    if (geteuid() == 0) {
        const gid_t group = start.groups.empty() ? 65534 : start.groups.front();
        if (setgroups(start.groups.size(), start.groups.data()) != 0 ||
            setresgid(group, group, group) != 0 ||
            setresuid(start.uid, start.uid, start.uid) != 0) {
            return false;
        }
    }
    return DropCapabilities() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_DUMPABLE, 0) == 0;
}

// The three descriptors as 0, 1 and 2, and no other. All of them are above 2 at first.
bool ArrangeDescriptors(const RelayStart& start) {
    return dup2(start.input, 0) == 0 && dup2(start.output, 1) == 1 && dup2(start.end, 2) == 2 &&
           close_range(3, ~0U, 0) == 0 && fcntl(0, F_SETFL, O_NONBLOCK) == 0;
}

class Copier {
public:
    Copier() : written(0), kept(0), dropped(0), inputOpen(true), outputOpen(true), ended(false) {}

    void Run() {
        while (inputOpen || (outputOpen && written < held.size())) {
            pollfd slots[3] = {{inputOpen ? 0 : -1, POLLIN, 0},
                               {outputOpen ? 1 : -1, Wanted(), 0},
                               {ended ? -1 : 2, POLLIN, 0}};
            const int ready = poll(slots, 3, TimeLeft());
            if (ready == 0 || (ready < 0 && errno != EINTR)) {
                return;
            }
            if (ready < 0) {
                continue;
            }
            Step(slots);
        }
    }

private:
    short Wanted() const { return written < held.size() ? POLLOUT : 0; }

    int TimeLeft() const {
        if (inputOpen) {
            return -1;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
        return static_cast<int>(std::max<long long>(left, 0));
    }

    void Step(const pollfd* slots) {
        if (slots[0].revents != 0) {
            Read();
        }
        if (slots[2].revents != 0) {
            ended = true;
            // What the tool wrote is in the pipe by now; a daemon that it left is not waited for.
            while (inputOpen && Read()) {
            }
            CloseInput();
        }
        if ((slots[1].revents & POLLOUT) != 0) {
            Write();
        } else if (slots[1].revents != 0) {
            StopWriting();
        }
    }

    // Whether there may be more.
    bool Read() {
        char buffer[16384];
        const ssize_t count = read(0, buffer, sizeof(buffer));
        if (count > 0) {
            Keep(buffer, static_cast<std::size_t>(count));
            return true;
        }
        if (count < 0 && errno == EINTR) {
            return true;
        }
        if (count == 0 || errno != EAGAIN) {
            CloseInput();
        }
        return false;
    }

    void Keep(const char* bytes, std::size_t count) {
        const std::size_t room = outputOpen ? kMostOutput - kept : 0;
        const std::size_t taken = std::min(room, count);
        held.append(bytes, taken);
        kept += taken;
        dropped += count - taken;
    }

    void CloseInput() {
        if (!inputOpen) {
            return;
        }
        inputOpen = false;
        limit = Clock::now() + std::chrono::milliseconds(kLastWritesMilliseconds);
        if (dropped > 0 && outputOpen) {
            held += "\nsentrel-agent: " + std::to_string(dropped) + " more bytes were dropped\n";
        }
    }

    void Write() {
        const std::size_t count = std::min<std::size_t>(held.size() - written, PIPE_BUF);
        const ssize_t result = write(1, held.data() + written, count);
        if (result < 0) {
            if (errno != EINTR && errno != EAGAIN) {
                StopWriting();
            }
            return;
        }
        written += static_cast<std::size_t>(result);
        if (written == held.size()) {
            held.clear();
            written = 0;
        }
    }

    // The reader is gone. What comes is read all the same, or the tool would be held up.
    void StopWriting() {
        outputOpen = false;
        held.clear();
        written = 0;
    }

    std::string held;
    std::size_t written;  // of `held`
    std::size_t kept;     // in all
    std::size_t dropped;
    bool inputOpen;
    bool outputOpen;
    bool ended;
    Clock::time_point limit;  // means something once the input is closed
};

}  // namespace

int BecomeRelay(const RelayStart& start, pid_t agentPid) {
    (void)setsid();
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (!ArrangeDescriptors(start) || !TakeRights(start)) {
        return 1;
    }
    // After the change of rights, which clears it.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != agentPid) {
        return 1;
    }
    Copier().Run();
    return 0;
}

}  // namespace agent
