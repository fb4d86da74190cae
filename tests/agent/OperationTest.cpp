// SPDX-License-Identifier: Apache-2.0
// The table of operations, and the tools that it names.
#include "base/Operation.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "base/Tools.h"

using agent::MountChange;
using agent::Operation;
using agent::Operations;

namespace {

TEST(Operation, IsFoundByItsNameAndByNoOther) {
    for (const agent::OperationRow& row : agent::OperationRows()) {
        EXPECT_EQ(agent::FindOperation(row.name), row.operation);
        EXPECT_EQ(&agent::RowOf(row.operation), &row);
        EXPECT_STREQ(agent::NameOf(row.operation), row.name);
    }
    for (const char* name : {"", "mount", "sr_", "sr_moun", "sr_mount ", "SR_MOUNT"}) {
        EXPECT_EQ(agent::FindOperation(name), std::nullopt) << name;
    }
}

TEST(Operation, ASetHasWhatWasPutIn) {
    const Operations both = Operations{Operation::kMount} | Operations{Operation::kSystemctl};
    EXPECT_TRUE(both.Has(Operation::kMount) && both.Has(Operation::kSystemctl));
    EXPECT_FALSE(both.Has(Operation::kUmount) || Operations{}.Has(Operation::kMount));
    for (const agent::OperationRow& row : agent::OperationRows()) {
        EXPECT_TRUE(Operations::All().Has(row.operation)) << row.name;
        EXPECT_TRUE(Operations::Those(row.mounts).Has(row.operation)) << row.name;
    }
    const Operations removes = Operations::Those(MountChange::kRemoves);
    EXPECT_TRUE(removes.Has(Operation::kUmount) && removes.Has(Operation::kUmountCifs));
    EXPECT_FALSE(removes.Has(Operation::kMount) || removes.Has(Operation::kMknod));
}

class Folder {
public:
    Folder() { (void)mkdtemp(path.data()); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        (void)unlink((path + "/umount").c_str());
        (void)rmdir(path.c_str());
    }
    std::string path = "/tmp/sentrel-test-XXXXXX";
};

TEST(Operation, ItsToolIsTheFirstThatIsFound) {
    const Folder folder;
    const std::string umount = folder.path + "/umount";
    std::ofstream(umount) << "#!/bin/sh\n";
    ASSERT_EQ(chmod(umount.c_str(), 0755), 0);
    std::vector<std::string> warnings;
    const agent::Tools tools = agent::FindTools("/nowhere:" + folder.path, warnings);
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(tools.PathFor(Operation::kUmount), umount);
    EXPECT_EQ(tools.PathFor(Operation::kUmountCifs), umount);
    EXPECT_EQ(tools.PathFor(Operation::kMount), "");
    EXPECT_EQ(tools.PathFor(Operation::kMknod), "mknod") << "the agent's own work";
}

TEST(Operation, AToolThatOthersMayWriteIsSaidOnce) {
    const Folder folder;
    const std::string umount = folder.path + "/umount";
    std::ofstream(umount) << "#!/bin/sh\n";
    ASSERT_EQ(chmod(umount.c_str(), 0777), 0);
    std::vector<std::string> warnings;
    EXPECT_EQ(agent::FindTools(folder.path, warnings).PathFor(Operation::kUmount), umount);
    EXPECT_EQ(warnings,
              std::vector<std::string>{
                  umount + ": the tool is not to be trusted: others may write it, or it is no "
                           "program"});
    EXPECT_EQ(agent::CheckTool(umount).Status(), SR_FORK_FAILED);
    EXPECT_EQ(agent::CheckTool(folder.path + "/mount").Status(), SR_FEATURE_ISNT_IMPLEMENTED);
    EXPECT_EQ(agent::CheckTool("mknod").Status(), SR_FEATURE_ISNT_IMPLEMENTED);
}

}  // namespace
