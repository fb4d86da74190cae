// SPDX-License-Identifier: Apache-2.0
// A new operation is a new row here, and an enumerator in the header. This is the only file of the
// agent that holds an operation's name on the bus.
#include "Operation.h"

#include <algorithm>

namespace agent {

namespace {

// A mount helper may keep a small table below /run; the other tools write no files.
const unsigned long kSmallTable = 1048576;

}  // namespace

const std::vector<OperationRow>& OperationRows() {
    using Is = Operation;
    using Mounts = MountChange;
    static const std::vector<OperationRow> kRows = {
        {Is::kMount, "sr_mount", "/usr/bin/mount", Mounts::kAddsLocal, kSmallTable},
        {Is::kUmount, "sr_umount", "/usr/bin/umount", Mounts::kRemoves, kSmallTable},
        {Is::kMountCifs, "sr_mount_cifs", "/usr/sbin/mount.cifs", Mounts::kAddsShare, kSmallTable},
        {Is::kUmountCifs, "sr_umount_cifs", "/usr/bin/umount", Mounts::kRemoves, kSmallTable},
        {Is::kMknod, "sr_mknod", "mknod", Mounts::kNone, 0},
        {Is::kInsmod, "sr_insmod", "/usr/sbin/insmod", Mounts::kNone, 0},
        {Is::kRmmod, "sr_rmmod", "/usr/sbin/rmmod", Mounts::kNone, 0},
        {Is::kSystemctl, "sr_systemctl", "/usr/bin/systemctl", Mounts::kNone, 0},
    };
    return kRows;
}

const OperationRow& RowOf(Operation operation) {
    const std::vector<OperationRow>& rows = OperationRows();
    return *std::find_if(rows.begin(), rows.end(), [operation](const OperationRow& row) {
        return row.operation == operation;
    });
}

const char* NameOf(Operation operation) {
    return RowOf(operation).name;
}

std::optional<Operation> FindOperation(const std::string& name) {
    for (const OperationRow& row : OperationRows()) {
        if (name == row.name) {
            return row.operation;
        }
    }
    return std::nullopt;
}

Operations Operations::All() {
    Operations all{};
    for (const OperationRow& row : OperationRows()) {
        all = all | Operations{row.operation};
    }
    return all;
}

Operations Operations::Those(MountChange change) {
    Operations those{};
    for (const OperationRow& row : OperationRows()) {
        if (row.mounts == change) {
            those = those | Operations{row.operation};
        }
    }
    return those;
}

}  // namespace agent
