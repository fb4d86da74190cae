// SPDX-License-Identifier: Apache-2.0
#include "PrivateBus.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "ChildProcess.h"

namespace test {

namespace {

const char kHead[] =
    "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
    " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
    "<busconfig>\n"
    "  <type>system</type>\n"
    "  <listen>%ADDRESS%</listen>\n"
    "  <auth>EXTERNAL</auth>\n"
    "  <policy context=\"default\">\n"
    "    <allow user=\"*\"/>\n"
    "    <allow own=\"*\"/>\n"
    "    <allow send_type=\"method_call\"/>\n"
    "    <allow send_type=\"signal\"/>\n"
    "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
    "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
    "    <allow receive_type=\"method_call\"/>\n"
    "    <allow receive_type=\"method_return\"/>\n"
    "    <allow receive_type=\"error\"/>\n"
    "    <allow receive_type=\"signal\"/>\n"
    "  </policy>\n";

const char kRaisedLimits[] =
    "  <limit name=\"max_connections_per_user\">5000</limit>\n"
    "  <limit name=\"max_incomplete_connections\">5000</limit>\n"
    "  <limit name=\"max_completed_connections\">5000</limit>\n"
    "  <limit name=\"auth_timeout\">60000</limit>\n";

const char kNoRules[] = "  <limit name=\"max_match_rules_per_connection\">0</limit>\n";

const char kFolderName[] = "sentrel-bus-";  // then the process's number, a dash, and anything

// Removes the folders of processes that ended without removing them: killed, or by abort().
void RemoveFoldersOfTheDead(const std::string& base) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(base, ignored)) {
        const std::string name = entry.path().filename();
        const std::size_t start = std::strlen(kFolderName);
        if (name.compare(0, start, kFolderName) != 0 ||
            name.find('-', start) == std::string::npos) {
            continue;
        }
        const pid_t pid = std::atoi(name.c_str() + start);
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) {
            std::filesystem::remove_all(entry.path(), ignored);
        }
    }
}

// The folder of this process; removed when the process that made it exits.
class Home {
public:
    Home() : owner(getpid()) {
        const char* chosen = std::getenv("TMPDIR");
        const std::string base(chosen != nullptr ? chosen : "/tmp");
        RemoveFoldersOfTheDead(base);
        path = base + "/" + kFolderName + std::to_string(owner) + "-XXXXXX";
        if (mkdtemp(path.data()) == nullptr || chmod(path.c_str(), 0755) != 0) {
            ThrowErrno("making a folder for the bus");
        }
        address = "unix:path=" + path + "/bus";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }
    ~Home() {
        if (getpid() == owner) {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    }
    Home(const Home&) = delete;
    Home& operator=(const Home&) = delete;

    std::string path;
    std::string address;

private:
    pid_t owner;
};

const Home& TheHome() {
    static const Home home;
    return home;
}

const char* Text(PrivateBus::Limits limits) {
    switch (limits) {
        case PrivateBus::Limits::kRaised:
            return kRaisedLimits;
        case PrivateBus::Limits::kNoRules:
            return kNoRules;
        default:
            return "";
    }
}

// The text as a descriptor that a child can open again.
Descriptor TextFile(const std::string& text) {
    Descriptor file(memfd_create("bus-configuration", MFD_CLOEXEC));
    if (file.Get() < 0 ||
        write(file.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        lseek(file.Get(), 0, SEEK_SET) != 0) {
        ThrowErrno("writing the bus's configuration");
    }
    return file;
}

}  // namespace

std::string PrivateBus::Configuration(const std::string& more) {
    return kHead + more + "</busconfig>\n";
}

PrivateBus::PrivateBus(Limits limits) : PrivateBus(Configuration(Text(limits))) {}

PrivateBus::PrivateBus(const std::string& text) : configuration(text), pid(-1) {
    const std::string mark("%ADDRESS%");
    const std::size_t at = configuration.find(mark);
    if (at != std::string::npos) {
        configuration.replace(at, mark.size(), Address());
    }
    Start();
}

PrivateBus::~PrivateBus() {
    Stop();
}

void PrivateBus::Start() {
    (void)unlink((Folder() + "/bus").c_str());
    const Descriptor config = TextFile(configuration);
    Pipe announced;
    pid = Spawn({"dbus-daemon", "--nofork", "--nopidfile",
                 "--config-file=/proc/self/fd/" + std::to_string(config.Get()),
                 "--print-address=" + std::to_string(announced.Writer())},
                {config.Get(), announced.Writer()});
    announced.CloseWriter();
    try {
        const std::string line = announced.ReadLine(kLimit);
        if (line.compare(0, Address().size(), Address()) != 0) {
            throw std::runtime_error("the bus listens at '" + line + "'");
        }
    } catch (...) {
        Stop();
        throw;
    }
}

void PrivateBus::Stop() {
    if (pid > 0) {
        KillAndReap(pid);
        pid = -1;
    }
}

const std::string& PrivateBus::Address() {
    return TheHome().address;
}

const std::string& PrivateBus::Folder() {
    return TheHome().path;
}

}  // namespace test
