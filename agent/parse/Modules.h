// SPDX-License-Identifier: Apache-2.0
// The family of kernel modules: its grammars.
#ifndef SENTREL_AGENT_MODULES_H
#define SENTREL_AGENT_MODULES_H

#include "Grammar.h"

namespace agent {

Grammars ModuleGrammars();

}  // namespace agent

#endif
