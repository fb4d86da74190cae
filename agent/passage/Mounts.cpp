// SPDX-License-Identifier: Apache-2.0
#include "Mounts.h"

#include <algorithm>
#include <ctime>
#include <map>

#include "run/MountTable.h"

namespace agent {

namespace {

const std::size_t kMost = 1024;

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
    std::map<std::string, std::size_t> points;  // how many mounts lie on each
    const Result<std::vector<MountEntry> > mounts = ReadMounts();
    if (!mounts) {
        return;
    }
    for (const MountEntry& entry : *mounts) {
        ++points[entry.point];
    }
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
