// SPDX-License-Identifier: Apache-2.0
#include "PrivateBroker.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "PrivateBus.h"

namespace test {

namespace {

// Where one of its two programs looks for the other.
const char kPlace[] = "/usr/bin";

Descriptor Listen(const std::string& path, int type) {
    Descriptor socketOf(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (void)path.copy(address.sun_path, sizeof address.sun_path - 1);
    (void)unlink(path.c_str());
    if (bind(socketOf.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (type == SOCK_STREAM && listen(socketOf.Get(), 128) != 0) ||
        chmod(path.c_str(), 0777) != 0) {
        ThrowErrno("listening at " + path);
    }
    return socketOf;
}

std::string Path() {
    return PrivateBus::Address().substr(std::strlen("unix:path="));
}

// Runs in the child: the listening socket is its third descriptor.
int Launch(const std::string& configuration, int listening) {
    (void)setenv("LISTEN_FDS", "1", 1);
    (void)setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    const int copy = fcntl(listening, F_DUPFD, 10);
    if (dup2(copy, 3) != 3) {
        return 98;
    }
    const std::string program = std::string(kPlace) + "/dbus-broker-launch";
    (void)execl(program.c_str(), program.c_str(), "--scope", "system", "--config-file",
                configuration.c_str(), nullptr);
    return 99;
}

}  // namespace

std::string PrivateBroker::Program() {
    const char* const chosen = std::getenv("SENTREL_DBUS_BROKER");
    for (const std::string& folder :
         {std::string(chosen != nullptr ? chosen : kPlace), std::string(kPlace)}) {
        const std::string program = folder + "/dbus-broker-launch";
        if (access(program.c_str(), X_OK) == 0) {
            return program;
        }
    }
    return "";
}

PrivateBroker::PrivateBroker() {
    if (mount("sentrel-test", "/run", "tmpfs", 0, nullptr) != 0 ||
        mkdir("/run/systemd", 0755) != 0 || mkdir("/run/systemd/journal", 0755) != 0) {
        ThrowErrno("preparing /run");
    }
    const std::string program = Program();
    const std::string folder = program.substr(0, program.rfind('/'));
    const std::string layers = std::string("lowerdir=") + kPlace + ":" + folder;
    if (folder != kPlace &&
        mount("sentrel-test", kPlace, "overlay", MS_RDONLY, layers.c_str()) != 0) {
        ThrowErrno("putting dbus-broker in its place");
    }
    journal = Listen("/run/systemd/journal/socket", SOCK_DGRAM);
    const std::string configuration = PrivateBus::Folder() + "/broker.conf";
    std::ofstream file(configuration);
    std::string text = PrivateBus::Configuration("");
    const std::string place = "%ADDRESS%";
    text.replace(text.find(place), place.size(), PrivateBus::Address());
    file << text;
    file.close();
    const Descriptor listening = Listen(Path(), SOCK_STREAM);
    pid = Fork([&] { return Launch(configuration, listening.Get()); });
    // It says so in its journal.
    char line[4096];
    for (std::string said; said.find("MESSAGE=Ready") == std::string::npos;) {
        if (!WaitFor(journal.Get(), 1 /* POLLIN */, kLimit)) {
            throw std::runtime_error("dbus-broker did not start: " + said);
        }
        const ssize_t count = recv(journal.Get(), line, sizeof line, 0);
        said.append(line, static_cast<std::size_t>(count > 0 ? count : 0));
    }
}

// Its own child ends when the connection between the two does.
PrivateBroker::~PrivateBroker() {
    KillAndReap(pid);
    (void)unlink(Path().c_str());
}

}  // namespace test
