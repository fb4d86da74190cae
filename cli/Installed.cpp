// SPDX-License-Identifier: Apache-2.0
#include "Installed.h"

#include <dlfcn.h>
#include <glob.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace cli {

namespace {

const char kLibrary[] = "libsentrel-client.so.1";
const char kName[] = "org.sentrel.sr_agent";

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string Folder(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

std::string Real(const std::string& path) {
    char real[PATH_MAX];
    return realpath(path.c_str(), real) == nullptr ? path : real;
}

// The file of a folder; empty when there is none.
std::string IfThere(std::string folder, const std::string& name) {
    folder.append("/").append(name);
    return access(folder.c_str(), F_OK) == 0 ? folder : "";
}

bool IsListedAnywhere(const std::string& folder) {
    bool listed = IsListed(Contents("/etc/ld.so.conf"), folder);
    glob_t found = {};
    if (glob("/etc/ld.so.conf.d/*.conf", 0, nullptr, &found) == 0) {
        for (std::size_t i = 0; i < found.gl_pathc; ++i) {
            listed = listed || IsListed(Contents(found.gl_pathv[i]), folder);
        }
    }
    globfree(&found);
    return listed;
}

}  // namespace

bool IsCached(const std::string& cache, const std::string& library) {
    // Its entries end with a zero, the name stands behind the last slash of the path.
    return cache.find("/" + library + '\0') != std::string::npos;
}

bool IsListed(const std::string& configuration, const std::string& folder) {
    std::istringstream lines(configuration);
    std::string line;
    while (std::getline(lines, line)) {
        if (line == folder || line == folder + "/") {
            return true;
        }
    }
    return false;
}

Placed Placed::Find(const std::string& name, const std::vector<std::string>& folders,
                    const std::string& own) {
    Placed placed;
    for (const std::string& folder : folders) {
        if (placed.file.empty()) {
            placed.file = IfThere(folder, name);
        }
    }
    if (placed.file.empty()) {
        placed.aside = IfThere(own, name);
    }
    return placed;
}

Installed Installed::OfThisMachine() {
    Installed installed;
    Dl_info info = {};
    void* const function = dlsym(RTLD_DEFAULT, "SR_ConfigInfo");
    if (function != nullptr && dladdr(function, &info) != 0) {
        installed.libDir = Real(Folder(info.dli_fname));
    }
    installed.found = IsCached(Contents("/etc/ld.so.cache"), kLibrary) ||
                      !IfThere("/lib", kLibrary).empty() || !IfThere("/usr/lib", kLibrary).empty();
    installed.listed = IsListedAnywhere(installed.libDir);

    const std::string prefix = Folder(Folder(Real("/proc/self/exe")));
    const std::string bus = std::string(SENTREL_DBUS_DATADIR) + "/dbus-1";
    const std::string share = prefix + "/share/dbus-1";
    const std::string lib = prefix + "/lib";
    installed.policy =
        Placed::Find(std::string(kName) + ".conf",
                     {"/etc/dbus-1/system.d", "/usr/share/dbus-1/system.d", bus + "/system.d"},
                     share + "/system.d");
    installed.activation = Placed::Find(
        std::string(kName) + ".service",
        {"/usr/local/share/dbus-1/system-services", "/usr/share/dbus-1/system-services",
         "/lib/dbus-1/system-services", bus + "/system-services"},
        share + "/system-services");
    installed.unit =
        Placed::Find("sentrel-agent.service",
                     {"/etc/systemd/system", "/run/systemd/system", "/usr/local/lib/systemd/system",
                      "/usr/lib/systemd/system", "/lib/systemd/system"},
                     lib + "/systemd/system");
    installed.group = Placed::Find("sentrel.conf", {}, lib + "/sysusers.d");
    if (installed.group.aside.empty()) {
        installed.group =
            Placed::Find("sentrel.conf", {"/usr/local/lib/sysusers.d", "/usr/lib/sysusers.d"}, "");
    }
    return installed;
}

}  // namespace cli
