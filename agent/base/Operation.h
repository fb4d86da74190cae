// SPDX-License-Identifier: Apache-2.0
// The operations, and what all rooms must know of each: one row of one table. What a single room
// knows of them besides (grammar, rule fields, command) is in that room. Constants; callable from
// any thread.
#ifndef SENTREL_AGENT_OPERATION_H
#define SENTREL_AGENT_OPERATION_H

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

namespace agent {

enum class Operation {
    kMount,
    kUmount,
    kMountCifs,
    kUmountCifs,
    kMknod,
    kInsmod,
    kRmmod,
    kSystemctl
};

// What an operation that succeeds does to the table of mounts. A share is another machine's.
enum class MountChange { kNone, kAddsLocal, kAddsShare, kRemoves };

struct OperationRow {
    Operation operation;
    const char* name;  // on the bus and in rules
    // The tool's usual path; without any '/', it is what the agent makes itself.
    const char* tool;
    MountChange mounts;
    unsigned long largestFile;  // bytes of a file that the tool may write
};

const OperationRow& RowOf(Operation operation);
const std::vector<OperationRow>& OperationRows();

const char* NameOf(Operation operation);
// Nothing when there is no such operation.
std::optional<Operation> FindOperation(const std::string& name);

// A set of operations.
class Operations {
public:
    constexpr Operations(std::initializer_list<Operation> list) {
        for (const Operation operation : list) {
            bits |= BitOf(operation);
        }
    }
    static Operations All();
    static Operations Those(MountChange change);

    constexpr bool Has(Operation operation) const { return (bits & BitOf(operation)) != 0; }
    friend constexpr Operations operator|(Operations left, Operations right) {
        left.bits |= right.bits;
        return left;
    }

private:
    static constexpr unsigned BitOf(Operation operation) {
        return 1U << static_cast<unsigned>(operation);
    }

    unsigned bits = 0;
};

}  // namespace agent

#endif
