// SPDX-License-Identifier: Apache-2.0
#include "PrivateBus.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "ChildProcess.h"

namespace test {

namespace {

const int kStartLimit = 30000;  // milliseconds

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

const char kTail[] = "</busconfig>\n";

// The folder of this process; removed when the process that made it exits.
class Home {
public:
    Home() : owner(getpid()) {
        const char* base = std::getenv("TMPDIR");
        path = std::string(base != nullptr ? base : "/tmp") + "/sentrel-bus-XXXXXX";
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

std::string Configuration(PrivateBus::Limits limits) {
    std::string text(kHead);
    if (limits == PrivateBus::Limits::kRaised) {
        text += kRaisedLimits;
    } else if (limits == PrivateBus::Limits::kNoRules) {
        text += kNoRules;
    }
    return text + kTail;
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

PrivateBus::PrivateBus(Limits limits) : PrivateBus(Configuration(limits)) {}

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
        const std::string line = announced.ReadLine(kStartLimit);
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
