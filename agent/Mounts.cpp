// SPDX-License-Identifier: Apache-2.0
#include "Mounts.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

namespace agent {

namespace {

const std::size_t kMost = 1024;

// The kernel writes blanks, tabs, newlines and backslashes as \ and three octal digits.
std::string Unescape(const std::string& text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '\\' && at + 3 < text.size()) {
            plain += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 +
                                       (text[at + 3] - '0'));
            at += 3;
        } else {
            plain += text[at];
        }
    }
    return plain;
}

// How many mounts lie on each mount point.
std::map<std::string, std::size_t> ReadTable(const std::string& file) {
    std::map<std::string, std::size_t> points;
    std::ifstream table(file);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skip;
        std::string point;
        fields >> skip >> skip >> skip >> skip >> point;
        ++points[Unescape(point)];
    }
    return points;
}

std::string Now() {
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    char text[32] = {};
    (void)gmtime_r(&now, &parts);
    (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

}  // namespace

void Mounts::Add(MountRecord record) {
    record.since = Now();
    records.push_back(std::move(record));
    if (records.size() > kMost) {
        DropGone();
    }
    if (records.size() > kMost) {
        records.erase(records.begin());
    }
}

void Mounts::Remove(const std::string& target) {
    const auto found =
        std::find_if(records.rbegin(), records.rend(),
                     [&](const MountRecord& record) { return record.target == target; });
    if (found != records.rend()) {
        records.erase(std::next(found).base());
    }
}

std::vector<MountRecord> Mounts::List() {
    DropGone();
    return records;
}

// Of several on one place the newest are the first to have gone.
void Mounts::DropGone() {
    std::map<std::string, std::size_t> points = ReadTable(file);
    std::vector<MountRecord> kept;
    for (const MountRecord& record : records) {
        const auto point = points.find(record.target);
        if (point != points.end() && point->second > 0) {
            --point->second;
            kept.push_back(record);
        }
    }
    records = kept;
}

}  // namespace agent
