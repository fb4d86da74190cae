// SPDX-License-Identifier: Apache-2.0
// Whether all that one rule lets in, in one of its keys, another lets in too: for the table of
// keys. "Yes" is proved; "no" is only not proved. Pure functions.
#ifndef SENTREL_AGENT_COVERS_H
#define SENTREL_AGENT_COVERS_H

#include "Rule.h"

namespace agent {

// Not given means any.
bool Covers(const Patterns& outer, const Patterns& inner);
bool Covers(const Numbers& outer, const Numbers& inner);

bool CoversUsers(const Rule& outer, const Rule& inner);
// Without modes it is the one that a node has when nobody names any.
bool CoversModes(const Rule& outer, const Rule& inner);

template <Patterns Rule::*patterns>
bool CoversPatterns(const Rule& outer, const Rule& inner) {
    return Covers(outer.*patterns, inner.*patterns);
}

template <Numbers Rule::*numbers>
bool CoversNumbers(const Rule& outer, const Rule& inner) {
    return Covers(outer.*numbers, inner.*numbers);
}

// For what is permitted besides, where "not given" means none, not any.
template <Patterns Rule::*patterns>
bool CoversAllowed(const Rule& outer, const Rule& inner) {
    return !(inner.*patterns).given ||
           ((outer.*patterns).given && Covers(outer.*patterns, inner.*patterns));
}

}  // namespace agent

#endif
