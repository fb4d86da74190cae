// SPDX-License-Identifier: Apache-2.0
// What an installation puts where, as far as calls depend on it: the library in the loader's list,
// and the files that the bus, systemd and systemd-sysusers read.
#ifndef SENTREL_CLI_INSTALLED_H
#define SENTREL_CLI_INSTALLED_H

#include <string>
#include <vector>

namespace cli {

// One file of the installation.
struct Placed {
    std::string file;   // where it is read; empty when it is in none of these folders
    std::string aside;  // where else this installation has it; empty when nowhere
    static Placed Find(const std::string& name, const std::vector<std::string>& folders,
                       const std::string& own);
};

struct Installed {
    std::string libDir;  // the folder of the library that this command uses
    // Whether the loader finds it for any program; if not, whether it would after `ldconfig`.
    bool found = true;
    bool listed = true;
    Placed policy, activation, unit, group;

    static Installed OfThisMachine();
};

// Whether the loader's cache, whose bytes these are, has a library of this name.
bool IsCached(const std::string& cache, const std::string& library);

// Whether a configuration of the loader names the folder in a line of its own.
bool IsListed(const std::string& configuration, const std::string& folder);

}  // namespace cli

#endif
