// SPDX-License-Identifier: Apache-2.0
// The signal dispositions of a child: the program's own are not its tools'.
#ifndef SENTREL_AGENT_SIGNALS_H
#define SENTREL_AGENT_SIGNALS_H

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace agent {

// Every signal as a new process has it. The two that the C library keeps to itself it does not let
// be set, although a parent may have handed them down ignored, so the kernel is asked for those.
inline void ResetSignals() {
    struct sigaction standard = {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        if (sigaction(number, &standard, nullptr) != 0) {
            const unsigned long kernelsDefault[8] = {};
            (void)syscall(SYS_rt_sigaction, number, kernelsDefault, nullptr, 8UL);
        }
    }
}

inline void IgnoreSignal(int number) {
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    (void)sigaction(number, &ignored, nullptr);
}

}  // namespace agent

#endif
