// SPDX-License-Identifier: Apache-2.0
// What a process holds, and a listener that fails a test which leaves more of it behind.
#ifndef SENTREL_TESTS_RESOURCES_H
#define SENTREL_TESTS_RESOURCES_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace test {

// Whether a sanitizer stands in for the allocator, so that memory figures mean little.
bool UnderSanitizer();

// A descriptor and the file behind it. The path is for messages alone: in a mount namespace made
// meanwhile, the same file may show another.
struct OpenFile {
    int number = -1;
    dev_t device = 0;
    ino_t inode = 0;
    std::string path;
};
bool operator<(const OpenFile& left, const OpenFile& right);

struct Resources {
    std::vector<OpenFile> descriptors;  // sorted
    std::size_t threads = 0;
    std::size_t children = 0;

    static Resources Now();
    // What `after` has more or less of; empty when nothing.
    std::string Difference(const Resources& after) const;
};

// Bytes of the heap in use; 0 under a sanitizer.
std::size_t HeapInUse();
// Bytes of memory resident.
std::size_t Resident();

// Compares before and after each test. A thread that has been joined may take a moment to leave
// the kernel's list; the comparison is repeated for as long as the patience lasts.
class NothingLeftBehind : public testing::EmptyTestEventListener {
public:
    explicit NothingLeftBehind(int milliseconds = 2000) : patience(milliseconds) {}

    void OnTestStart(const testing::TestInfo& test) override;
    void OnTestEnd(const testing::TestInfo& test) override;

private:
    int patience;
    Resources before;
};

}  // namespace test

#endif
