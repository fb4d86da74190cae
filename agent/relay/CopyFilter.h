// SPDX-License-Identifier: Apache-2.0
// The kernel's filter for a process that does nothing but copy: any other system call ends it at
// once. A relay holds a caller's file and reads what a tool wrote, so should either ever get the
// better of it, there is nothing that it could ask the kernel for.
//
// It is made in the agent, once, by libseccomp; a relay only hands it to the kernel. The library
// allocates and frees memory while it makes a filter, and again when it has loaded one: what it
// freed then could make the C library give memory back to the kernel, by a call that the filter
// forbids. Nor does a relay pay for it, in time or in memory, and what cannot be made is known
// before there is a process. A value type.
#ifndef SENTREL_AGENT_COPYFILTER_H
#define SENTREL_AGENT_COPYFILTER_H

#include <linux/filter.h>

#include <utility>
#include <vector>

#include "base/Result.h"

namespace agent {

class CopyFilter {
public:
    static Result<CopyFilter> Make();

    // Puts this process under the filter, for good, and takes from it and all that it may execute
    // the ways to more rights. False with errno when the kernel does not; the process must then
    // not go on.
    bool Load() const;

private:
    explicit CopyFilter(std::vector<sock_filter>&& program_) : program(std::move(program_)) {}

    std::vector<sock_filter> program;
};

}  // namespace agent

#endif
