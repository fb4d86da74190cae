// SPDX-License-Identifier: Apache-2.0
// The running agent as root, in a mount namespace of this process's own, for callers who try to get
// more out of it than its rules give.
#ifndef SENTREL_TESTS_ATTACKFIXTURE_H
#define SENTREL_TESTS_ATTACKFIXTURE_H

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "MountNamespace.h"
#include "OtherUsers.h"
#include "PrivateBus.h"
#include "Programs.h"
#include "Skip.h"

// A place of root's in which nobody else may write, down from the root directory.
const char kPlace[] = "/mnt";

inline std::string Contents(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline bool Exists(const std::string& path) {
    struct stat found = {};
    return lstat(path.c_str(), &found) == 0;
}

// The last mount on `where` in the kernel's list; empty when there is none.
inline std::string MountedOn(const std::string& where) {
    std::istringstream table(Contents("/proc/self/mountinfo"));
    std::string found;
    for (std::string line; std::getline(table, line);) {
        found = test::Holds(line, " " + where + " ") ? line : found;
    }
    return found;
}

inline bool KernelKnows(const std::string& type) {
    return test::Holds(Contents("/proc/filesystems"), "\t" + type + "\n");
}

inline bool Found(const std::string& program) {
    return access(("/usr/sbin/" + program).c_str(), X_OK) == 0 ||
           access(("/usr/bin/" + program).c_str(), X_OK) == 0;
}

class AttackTest : public testing::Test {
protected:
    void SetUp() override {
        NEEDS_MOUNT_NAMESPACE();
        ASSERT_EQ(0, mount("none", kPlace, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"));
        mounted = true;
        bus = std::make_unique<test::PrivateBus>();
        rules = std::make_unique<test::RuleFolder>();
        tools = std::make_unique<test::FakeTools>();
    }
    void TearDown() override {
        agent.reset();
        while (mounted && umount2(kPlace, MNT_DETACH) == 0) {
        }
    }

    static std::string At(const std::string& name) { return std::string(kPlace) + "/" + name; }
    static std::string Rule(const std::string& name, const std::string& fields) {
        return "[[rule]]\nname = \"" + name + "\"\nagent = \"" + name +
               "\"\npermit = true\nuser = \"*\"\n" + fields;
    }
    // With scripts in place of the tools, or with the system's own.
    void Serve(const std::string& text, bool scripts) {
        rules->Write("all.toml", text);
        std::vector<std::string> options = {"--rules", rules->Folder(), "--audit-stderr", "--limit",
                                            "minute=9999"};
        if (scripts) {
            options.insert(options.end(), {"--tool-path", tools->Folder()});
        }
        agent = std::make_unique<test::RunningAgent>(options);
        connection = std::make_unique<test::PlainConnection>();
    }
    std::string Answer(const std::string& name, const std::string& text, int descriptor = 0) {
        return test::Call(connection->Get(), name.c_str(), text.c_str(), descriptor).text;
    }
    void ExpectRefused(const std::string& name, const std::string& text) {
        const std::string answer = Answer(name, text);
        EXPECT_TRUE(answer == "7 0" || answer == "1 0") << name << " " << text << ": " << answer;
        EXPECT_FALSE(Exists(tools->File("ran"))) << name << " " << text;
    }
    static void MakeDirectory(const std::string& path, mode_t mode) {
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        ASSERT_EQ(0, chmod(path.c_str(), mode));
    }
    static void MakeFile(const std::string& path, const std::string& text, mode_t mode,
                         uid_t owner = 0) {
        std::ofstream(path) << text;
        ASSERT_EQ(0, chmod(path.c_str(), mode));
        ASSERT_EQ(0, chown(path.c_str(), owner, owner));
    }

    bool mounted = false;
    std::unique_ptr<test::PrivateBus> bus;
    std::unique_ptr<test::RuleFolder> rules;
    std::unique_ptr<test::FakeTools> tools;
    std::unique_ptr<test::RunningAgent> agent;
    std::unique_ptr<test::PlainConnection> connection;
};

#endif
