// SPDX-License-Identifier: Apache-2.0
#include "Resources.h"

#include <dirent.h>
#include <malloc.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <tuple>

namespace test {

namespace {

typedef std::chrono::steady_clock Clock;

// The entries of a folder of /proc; not the descriptor that lists them.
std::vector<std::string> Entries(const std::string& folder) {
    std::vector<std::string> result;
    DIR* stream = opendir(folder.c_str());
    if (stream == nullptr) {
        return result;
    }
    const std::string own = std::to_string(dirfd(stream));
    while (const dirent* entry = readdir(stream)) {
        const std::string name(entry->d_name);
        if (name[0] != '.' && (folder != "/proc/self/fd" || name != own)) {
            result.push_back(name);
        }
    }
    closedir(stream);
    return result;
}

std::vector<OpenFile> Descriptors() {
    std::vector<OpenFile> result;
    for (const std::string& name : Entries("/proc/self/fd")) {
        OpenFile file;
        file.number = std::stoi(name);
        struct stat status = {};
        if (fstat(file.number, &status) != 0) {
            continue;  // another thread has closed it
        }
        file.device = status.st_dev;
        file.inode = status.st_ino;
        char path[256];
        const ssize_t length = readlink(("/proc/self/fd/" + name).c_str(), path, sizeof(path));
        file.path.assign(path, length > 0 ? static_cast<std::size_t>(length) : 0);
        result.push_back(file);
    }
    std::sort(result.begin(), result.end());
    return result;
}

std::size_t Children() {
    std::size_t count = 0;
    for (const std::string& thread : Entries("/proc/self/task")) {
        std::ifstream list("/proc/self/task/" + thread + "/children");
        std::string child;
        while (list >> child) {
            ++count;
        }
    }
    return count;
}

// Those of `files` that `others` lacks.
void DescribeFiles(std::ostream& out, const char* what, const std::vector<OpenFile>& files,
                   const std::vector<OpenFile>& others) {
    std::vector<OpenFile> found;
    std::set_difference(files.begin(), files.end(), others.begin(), others.end(),
                        std::back_inserter(found));
    for (const OpenFile& file : found) {
        out << "descriptor " << what << ": " << file.number << " -> " << file.path << "\n";
    }
}

void DescribeCount(std::ostream& out, const char* what, std::size_t before, std::size_t after) {
    if (before != after) {
        out << what << ": " << before << " before, " << after << " after\n";
    }
}

}  // namespace

bool operator<(const OpenFile& left, const OpenFile& right) {
    return std::tie(left.number, left.device, left.inode) <
           std::tie(right.number, right.device, right.inode);
}

bool UnderSanitizer() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
    return true;
#else
    return false;
#endif
#else
    return false;
#endif
}

Resources Resources::Now() {
    Resources result;
    result.descriptors = Descriptors();
    result.threads = Entries("/proc/self/task").size();
    result.children = Children();
    return result;
}

std::string Resources::Difference(const Resources& after) const {
    std::ostringstream out;
    DescribeFiles(out, "gone", descriptors, after.descriptors);
    DescribeFiles(out, "left", after.descriptors, descriptors);
    DescribeCount(out, "threads", threads, after.threads);
    DescribeCount(out, "children", children, after.children);
    return out.str();
}

std::size_t HeapInUse() {
    return UnderSanitizer() ? 0 : mallinfo2().uordblks;
}

std::size_t Resident() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

void NothingLeftBehind::OnTestStart(const testing::TestInfo& /*test*/) {
    // The thread sanitizer's own thread comes with the first one of the program.
    pid_t ended = 0;
    std::thread([&ended] { ended = gettid(); }).join();
    // Joined is not yet gone: the kernel takes its entry away a moment later.
    while (access(("/proc/self/task/" + std::to_string(ended)).c_str(), F_OK) == 0) {
        sched_yield();
    }
    before = Resources::Now();
}

void NothingLeftBehind::OnTestEnd(const testing::TestInfo& test) {
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(patience);
    std::string difference = before.Difference(Resources::Now());
    while (!difference.empty() && Clock::now() < end) {
        sched_yield();
        difference = before.Difference(Resources::Now());
    }
    if (!difference.empty()) {
        ADD_FAILURE() << test.test_suite_name() << "." << test.name() << " left something behind:\n"
                      << difference;
    }
}

}  // namespace test
