// SPDX-License-Identifier: Apache-2.0
// Makes the process a safe place, whoever started it and with what: the first thing that the
// program does.
#ifndef SENTREL_AGENT_SAFEPROCESS_H
#define SENTREL_AGENT_SAFEPROCESS_H

namespace agent {

// False when it cannot be had; nothing must be done then.
bool MakeProcessSafe();

}  // namespace agent

#endif
