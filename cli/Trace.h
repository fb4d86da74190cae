// SPDX-License-Identifier: Apache-2.0
// The command's own platform log: it takes the library's lines and prints them on standard error
// when asked, and drops them otherwise. One switch for the process, set before the first call.
#ifndef SENTREL_CLI_TRACE_H
#define SENTREL_CLI_TRACE_H

namespace cli {

void SetTrace(bool on);

}  // namespace cli

#endif
