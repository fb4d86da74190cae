// SPDX-License-Identifier: Apache-2.0
// A tool for the tests of what runs tools: shows what it was given, or misbehaves in a chosen way.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void Print(const std::string& line) {
    const std::string text = line + "\n";
    if (write(STDOUT_FILENO, text.data(), text.size()) < 0) {
        _exit(99);
    }
}

[[noreturn]] void Stay() {
    for (;;) {
        pause();
    }
}

void ShowDescriptors() {
    for (int fd = 0; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) >= 0) {
            Print("fd " + std::to_string(fd));
        }
    }
}

void ShowLimit(const char* name, int resource) {
    rlimit limit = {};
    getrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
    Print(std::string(name) + " " + std::to_string(limit.rlim_max));
}

void ShowState() {
    char text[4096] = {};
    Print(std::string("cwd ") + getcwd(text, sizeof text));
    char link[4096] = {};
    (void)!readlink("/proc/self/fd/0", link, sizeof link - 1);
    Print(std::string("stdin ") + link);
    const mode_t mask = umask(0);
    Print("umask " + std::to_string(mask));
    Print(std::string("own session ") + (getsid(0) == getpid() ? "yes" : "no"));
    Print(std::string("own group ") + (getpgrp() == getpid() ? "yes" : "no"));
    for (int number = 1; number < 32; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) {
            Print("ignored " + std::to_string(number));
        }
    }
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    Print(std::string("blocked ") + (sigisemptyset(&blocked) != 0 ? "none" : "some"));
    ShowLimit("nofile", RLIMIT_NOFILE);
    ShowLimit("core", RLIMIT_CORE);
    ShowLimit("fsize", RLIMIT_FSIZE);
    ShowLimit("cpu", RLIMIT_CPU);
    ShowLimit("as", RLIMIT_AS);
}

void ShowFile(const char* path) {
    FILE* file = fopen(path, "r");
    int letter = EOF;
    while (file != nullptr && (letter = fgetc(file)) != EOF) {
        putchar(letter == '\0' ? '\n' : letter);
    }
    fflush(stdout);
}

void ShowSecret() {
    const char* number = getenv("PASSWD_FD");
    char text[8192] = {};
    const ssize_t count = number == nullptr ? -1 : read(atoi(number), text, sizeof text - 1);
    Print("secret [" + std::string(text) + "] " + std::to_string(count));
    ShowFile("/proc/self/cmdline");
    ShowFile("/proc/self/environ");
}

void Flood(long bytes) {
    const std::string piece(4096, 'x');
    while (bytes > 0) {
        const ssize_t count =
            write(STDOUT_FILENO, piece.data(), static_cast<size_t>(bytes < 4096 ? bytes : 4096));
        if (count < 0) {
            _exit(errno == EPIPE ? 7 : 8);
        }
        bytes -= count;
    }
}

// A directory that something is mounted on can be renamed where nothing is: in another namespace. A
// child goes there, since the way back would lead out of a chroot.
bool SwapMountPoint(const char* directory, const char* newName, const char* elsewhere) {
    const pid_t child = fork();
    if (child == 0) {
        const bool swapped = unshare(CLONE_NEWNS) == 0 &&
                             mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                             umount2(directory, MNT_DETACH) == 0 &&
                             rename(directory, newName) == 0 && symlink(elsewhere, directory) == 0;
        _exit(swapped ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

int Misbehave(const std::string& what, int argc, char** argv) {
    if (what == "stay") {
        Print("pid " + std::to_string(getpid()) + " " + std::to_string(getppid()));
        Stay();
    }
    if (what == "ignore-term") {
        signal(SIGTERM, SIG_IGN);
        Print("pid " + std::to_string(getpid()) + " " + std::to_string(getppid()));
        Stay();
    }
    if (what == "leave-child") {
        // A child of the same group that ignores the polite signal.
        const pid_t child = fork();
        if (child == 0) {
            signal(SIGTERM, SIG_IGN);
            Print("pid " + std::to_string(getpid()) + " " + std::to_string(getppid()));
            Stay();
        }
        Stay();
    }
    if (what == "flood") {
        Flood(atol(argv[2]));
        return 0;
    }
    if (what == "mount-bare-and-fail") {
        (void)!mount("none", argv[argc - 1], "tmpfs", 0, "");
        return 32;
    }
    if (what == "mount-bare-and-stay") {
        (void)!mount("none", argv[argc - 1], "tmpfs", 0, "");
        Print("mounted");
        Stay();
    }
    if (what == "mount-bare") {
        return mount("none", argv[argc - 1], "tmpfs", 0, "") == 0 ? 0 : 32;
    }
    if (what == "swap-then-mount") {
        // DIRECTORY NEW-NAME ELSEWHERE TARGET
        if (rename(argv[2], argv[3]) != 0 || symlink(argv[4], argv[2]) != 0) {
            return 90;
        }
        execl("/usr/bin/mount", "mount", "-i", "--no-canonicalize", "-t", "tmpfs", "-o",
              "nosuid,nodev", "--", "none", argv[5], static_cast<char*>(nullptr));
        return 91;
    }
    if (what == "swap-then-umount") {
        // DIRECTORY NEW-NAME ELSEWHERE TARGET
        if (!SwapMountPoint(argv[2], argv[3], argv[4])) {
            return 90;
        }
        execl("/usr/bin/umount", "umount", "-i", "--no-canonicalize", "--", argv[5],
              static_cast<char*>(nullptr));
        return 91;
    }
    return 64;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "env") {
        for (char** entry = environ; *entry != nullptr; ++entry) {
            Print(*entry);
        }
    } else if (what == "fds") {
        ShowDescriptors();
    } else if (what == "state") {
        ShowState();
    } else if (what == "args") {
        for (int i = 0; i < argc; ++i) {
            Print(argv[i]);
        }
    } else if (what == "cat") {
        ShowFile(argv[2]);
    } else if (what == "secret") {
        ShowSecret();
    } else if (what == "euid") {
        return geteuid() == 0 ? 42 : 0;
    } else if (what == "exit") {
        return atoi(argv[2]);
    } else if (what == "signal") {
        kill(getpid(), atoi(argv[2]));
        Stay();
    } else {
        return Misbehave(what, argc, argv);
    }
    return 0;
}
