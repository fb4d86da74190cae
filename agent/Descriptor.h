// SPDX-License-Identifier: Apache-2.0
// The caller's descriptor. It is taken over as the open file that the caller has, never opened
// again by path: an open by a root process would have root's rights, whatever the caller's has.
#ifndef SENTREL_AGENT_DESCRIPTOR_H
#define SENTREL_AGENT_DESCRIPTOR_H

#include <sys/types.h>

#include <string>

#include "Fd.h"

namespace agent {

// Takes descriptor `number` of process `pid` over into `taken`, when it is open for writing and a
// pipe, a stream socket, a terminal, /dev/null or an ordinary file. False with the reason in
// `error` otherwise; `taken` is then left alone. The status flags are shared with the caller and
// must not be changed.
bool TakeDescriptor(pid_t pid, int number, Fd& taken, std::string& error);

}  // namespace agent

#endif
