// SPDX-License-Identifier: Apache-2.0
#include "SafeProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace agent {

namespace {

// Later descriptors must never be taken for the standard ones.
bool FillStandardDescriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= 2) {
        fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    }
    if (fd > 2) {
        (void)close(fd);
    }
    return fd > 2;
}

// Nothing is taken from the environment but the bus's address.
bool CleanEnvironment() {
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string kept = address != nullptr ? address : "";
    return clearenv() == 0 && setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1) == 0 &&
           (kept.empty() || setenv("DBUS_SYSTEM_BUS_ADDRESS", kept.c_str(), 1) == 0);
}

// Each request takes some descriptors.
void RaiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 65536));
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

bool MakeProcessSafe() {
    if (!FillStandardDescriptors() || !CleanEnvironment()) {
        return false;
    }
    // No core file and no debugger of a user's shows what callers sent.
    (void)prctl(PR_SET_DUMPABLE, 0);
    RaiseDescriptorLimit();
    return true;
}

}  // namespace agent
