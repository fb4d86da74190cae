// SPDX-License-Identifier: Apache-2.0
//
// The descriptor's status flags are shared with the caller, so it is never made non-blocking.
// Instead what was read waits in a buffer as large as the cap, and is written in pieces that a
// ready pipe takes without blocking: the tool is drained even when nobody reads at the other end.
//
// From Confine() on, no function is called but those that are system calls of the filter, or that
// compute: what the C library does behind the others is not known here.
#include "RelayChild.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "base/AsCaller.h"
#include "base/Process.h"

namespace agent {

namespace {

const int kInput = 0;
const int kOutput = 1;
const int kReport = 3;
const std::size_t kTail = 128;  // room in the buffer for the last line

class Copy {
public:
    Copy(char* memory, std::size_t capacity) : buffer(memory), cap(capacity) {}

    void Run() {
        while (open || written < filled) {
            pollfd slots[2] = {{open ? kInput : -1, POLLIN, 0},
                               {written < filled ? kOutput : -1, POLLOUT, 0}};
            if (syscall(SYS_ppoll, slots, 2, nullptr, nullptr, 0) < 0) {
                continue;
            }
            if (slots[0].revents != 0) {
                Read();
            }
            if (slots[1].revents != 0) {
                Write();
            }
        }
    }

    CopyReport report;

private:
    void Read() {
        char scratch[4096];
        const bool keep = received < cap && !gone;
        const ssize_t count = keep ? read(kInput, buffer + received, cap - received)
                                   : read(kInput, scratch, sizeof scratch);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            return;
        }
        if (count <= 0) {
            open = false;
            LastLine();
        } else if (keep) {
            received += static_cast<std::size_t>(count);
            filled = received;
        } else {
            report.dropped += static_cast<std::uint64_t>(count);
        }
    }

    void LastLine() {
        if (report.dropped > 0 && !gone) {
            const int length = snprintf(buffer + filled, kTail, "\n[%llu more bytes dropped]\n",
                                        static_cast<unsigned long long>(report.dropped));
            filled += static_cast<std::size_t>(length);
        }
    }

    void Write() {
        const std::size_t piece = std::min<std::size_t>(filled - written, PIPE_BUF);
        const ssize_t count = write(kOutput, buffer + written, piece);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
            report.copied += static_cast<std::uint64_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            gone = true;  // the reader has gone; the tool is still drained
            report.dropped += filled - written;
            written = filled;
        }
    }

    char* buffer;
    std::size_t cap;
    std::size_t received = 0;
    std::size_t filled = 0;
    std::size_t written = 0;
    bool open = true;
    bool gone = false;
};

// A text that does not fit is left out.
template <std::size_t size>
void Put(char (&field)[size], const std::string& text) {
    if (text.size() < size) {
        std::memcpy(field, text.c_str(), text.size() + 1);
    }
}

bool Send(const LookReport& report) {
    return write(kReport, &report, sizeof report) == static_cast<ssize_t>(sizeof report);
}

// A reader that has gone, or a file that must not grow any further, is an error to be seen and no
// end.
ChildStart StartOfRelay() {
    ChildStart start;
    start.ignored = {SIGPIPE, SIGXFSZ};
    return start;
}

// The pipe's end and the report become 0 and 3; all else is closed. Until the output is known the
// pipe's end stands at 1 as well, and at 2 always: a file that is opened meanwhile must not come to
// stand where somebody writes without asking, and a reading end cannot be written to.
bool Begin(const RelayChildSetup& setup, pid_t parent) {
    ChildStart start = StartOfRelay();
    start.descriptors = {setup.input, setup.input, setup.input, setup.report};
    return BeginChild(start, parent);
}

// Makes the caller's descriptor number 1 and leaves no copy of it. The first close tells whether
// the file's system answers: better now than when the tool has run.
bool PlaceOutput(OwnedFd&& taken) {
    const OwnedFd output(std::move(taken));
    return dup2(output.Get(), kOutput) == kOutput;
}

bool SendAccount(LookReport report, const Account& account) {
    report.hasPrimary = account.primary.has_value();
    report.primary = account.primary.value_or(0);
    for (const gid_t group : account.groups) {
        if (report.groupCount == LookReport::kGroups) {
            if (!Send(report)) {
                return false;
            }
            report.groupCount = 0;
        }
        report.groups[report.groupCount++] = group;
    }
    report.accountKnown = true;
    return Send(report);
}

// What the account database loads into a process, opens or starts there goes with that process, and
// so does one that never answers. It holds no end of the relay's pipe: if the kernel does not let
// it die, whoever writes there must still learn that the relay has gone.
void FindAccount(const RelayTask& task, const LookReport& report, std::chrono::milliseconds limit) {
    const OwnedFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const Result<Child> child = Child::Fork([&](pid_t parent) {
        ChildStart start = StartOfRelay();
        start.ownSession = false;
        start.descriptors = {null.Get(), null.Get(), null.Get(), kReport};
        if (!null || !BeginChild(start, parent)) {
            _exit(1);
        }
        (void)SendAccount(report, task.account());
        _exit(0);
    });
    if (child) {
        pollfd slot = {child->GetDescriptor(), POLLIN, 0};
        (void)poll(&slot, 1, static_cast<int>(limit.count()));
    }
    // One that has not ended by now is killed as it is let go.
}

// Finds out what can be, and says all but the last word. That one is `report`: with kTaken the
// output stands at its place.
bool Look(const RelayTask& task, const RelayChildSetup& setup, LookReport& report) {
    Put(report.executable, task.executable ? task.executable() : "");
    if (!Send(report)) {
        return false;
    }
    if (task.account && task.questions.Any()) {
        FindAccount(task, report, setup.accountLimit);
    }
    report.state = LookReport::kNoOutput;
    if (task.output) {
        Result<OwnedFd> output = task.output();
        if (!output) {
            Put(report.refusal, output.Reason());
            report.state = LookReport::kRefused;
        } else if (*output) {
            report.state =
                PlaceOutput(std::move(*output)) ? LookReport::kTaken : LookReport::kRefused;
        }
    }
    return true;
}

// Gives up every right but the caller's ids and the few system calls that copying takes.
bool Confine(const Caller& caller, const CopyFilter& filter, pid_t parent) {
    // Not to be looked into by the caller's other processes: this is a copy of the agent's memory.
    // After the ids, whose change takes both back.
    return BecomeCaller(caller) && prctl(PR_SET_DUMPABLE, 0) == 0 && DieWith(parent) &&
           filter.Load();
}

}  // namespace

[[noreturn]] void RunRelayChild(const RelayChildSetup& setup, const RelayTask& task,
                                const Caller& caller, const CopyFilter& filter, pid_t parent) {
    if (!Begin(setup, parent)) {
        _exit(1);
    }
    LookReport report;
    if (!Look(task, setup, report)) {
        _exit(0);
    }
    if (report.state != LookReport::kTaken) {
        (void)Send(report);
        _exit(0);
    }
    void* memory = mmap(nullptr, setup.cap + kTail, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || !Confine(caller, filter, parent)) {
        report.state = LookReport::kRefused;
        Put(report.refusal, "the process that copies the output cannot lay down its rights");
    }
    if (!Send(report) || report.state != LookReport::kTaken) {
        _exit(1);
    }
    Copy copy(static_cast<char*>(memory), setup.cap);
    copy.Run();
    (void)write(kReport, &copy.report, sizeof copy.report);
    _exit(0);
}

}  // namespace agent
