// SPDX-License-Identifier: Apache-2.0
// The family of device nodes: its grammar, and the bounds that rules are held to as well.
#ifndef SENTREL_AGENT_NODES_H
#define SENTREL_AGENT_NODES_H

#include "Grammar.h"

namespace agent {

constexpr unsigned kMostMajor = 4095;
constexpr unsigned kMostMinor = 1048575;

Grammars NodeGrammars();

}  // namespace agent

#endif
