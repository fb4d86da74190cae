// SPDX-License-Identifier: Apache-2.0
// Connections of other users' to the private bus, as far as the test may have them: as root of any
// account of this system (the bus takes no user that it cannot look up), else only of its own.
// Failures are thrown as std::runtime_error.
#ifndef SENTREL_TESTS_AGENT_OTHERUSERS_H
#define SENTREL_TESTS_AGENT_OTHERUSERS_H

#include <sys/types.h>

#include <memory>
#include <vector>

#include "Monitor.h"

namespace test {

// The accounts of this system.
std::vector<uid_t> Accounts();

// One that is not root's, when that can be had; else this process's.
uid_t PlainAccount();

std::unique_ptr<PlainConnection> ConnectAs(uid_t uid);

}  // namespace test

#endif
