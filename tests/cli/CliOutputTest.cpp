// SPDX-License-Identifier: Apache-2.0
// The pipe between the tool and the command.
#include "Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "ChildProcess.h"

namespace {

TEST(CliOutputTest, EverythingWrittenIsHandedOverInOrder) {
    std::string expected;
    for (int i = 0; i < 100000; ++i) {
        expected += std::to_string(i);
    }
    std::string seen;
    EXPECT_EQ(7, cli::WithOutput(
                     [&](int descriptor) {
                         for (std::size_t at = 0; at < expected.size();) {
                             const ssize_t count =
                                 write(descriptor, &expected[at], expected.size() - at);
                             if (count <= 0) {
                                 return 1;
                             }
                             at += static_cast<std::size_t>(count);
                         }
                         return 7;
                     },
                     [&](const std::string& bytes) { seen += bytes; }));
    EXPECT_TRUE(expected == seen);
}

TEST(CliOutputTest, OutputIsSeenWhileTheCallLasts) {
    test::Pipe seen;
    EXPECT_EQ(0, cli::WithOutput(
                     [&](int descriptor) {
                         if (write(descriptor, "early\n", 6) != 6) {
                             return 1;
                         }
                         return seen.ReadLine(30000) == "early" ? 0 : 2;
                     },
                     [&](const std::string& bytes) {
                         EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                                   write(seen.Writer(), bytes.data(), bytes.size()));
                     }));
}

TEST(CliOutputTest, AWriterThatOutlivesTheCallIsNotWaitedFor) {
    int kept = -1;
    std::string seen;
    EXPECT_EQ(0, cli::WithOutput(
                     [&](int descriptor) {
                         kept = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
                         return write(kept, "x", 1) == 1 ? 0 : 1;
                     },
                     [&](const std::string& bytes) { seen += bytes; }));
    EXPECT_EQ("x", seen);
    EXPECT_GE(kept, 0);
    (void)close(kept);
}

TEST(CliOutputTest, AnExceptionOfTheCallComesOut) {
    const auto call = [](int) -> int { throw std::runtime_error("no"); };
    EXPECT_THROW((void)cli::WithOutput(call, [](const std::string&) {}), std::runtime_error);
}

}  // namespace
