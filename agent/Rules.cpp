// SPDX-License-Identifier: Apache-2.0
#include "Rules.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "answer/Log.h"

namespace agent {

namespace {

const std::chrono::seconds kLongestStart(60);

void Report(const LoadResult& result) {
    for (const std::string& error : result.errors) {
        Complain("rules: " + error);
    }
    for (const std::string& warning : result.warnings) {
        Complain("rules: warning: " + warning);
    }
}

// Root's rules are checked as root's by whoever looks at them.
uid_t OwnerToCheck(const Options& options) {
    struct stat found = {};
    const bool isRoots = stat(options.rules.front().c_str(), &found) == 0 && found.st_uid == 0;
    return isRoots ? 0 : geteuid();
}

// The directories of the standard list need not be there; one that was named should be.
std::vector<std::string> WhatIsNotThere(const Options& options) {
    std::vector<std::string> errors;
    for (const std::string& directory : options.rules) {
        struct stat found = {};
        if (options.rulesNamed && stat(directory.c_str(), &found) != 0) {
            errors.push_back(directory + ": cannot be read: " + std::strerror(errno));
        }
    }
    return errors;
}

}  // namespace

int CheckRules(const Options& options) {
    RuleStore store(options.rules, OwnerToCheck(options), options.toolPath);
    LoadResult result = store.Load();
    if (result.errors.empty()) {
        result.errors = WhatIsNotThere(options);
    }
    for (const std::string& error : result.errors) {
        std::cout << error << "\n";
    }
    for (const std::string& warning : result.warnings) {
        std::cout << warning << " (warning)\n";
    }
    if (!result.errors.empty()) {
        std::cout << "the rules cannot be used\n";
        return 1;
    }
    std::cout << store.Count() << " rules can be used\n";
    return 0;
}

bool LoadRules(sentrel::SR_MainLoop& loop, RuleStore& store) {
    RuleLoader loader(loop, store, kLongestStart);
    LoadResult result;
    bool over = false;
    loader.Load([&result, &over](const LoadResult& loaded) {
        result = loaded;
        over = true;
    });
    while (!over) {
        loop.Dispatch();
    }
    Report(result);
    if (!result.errors.empty()) {
        Complain("the rules are wrong; see above");
    }
    return result.errors.empty();
}

void ReloadRules(RuleLoader& loader, const RuleStore& store, const RuleLoader::Done& done) {
    loader.Load([&store, done](const LoadResult& result) {
        Report(result);
        Complain(result.errors.empty()
                     ? "rules: " + std::to_string(store.Count()) + " loaded"
                     : std::string("rules: not loaded; the ones of before stay in force"));
        done(result);
    });
}

}  // namespace agent
