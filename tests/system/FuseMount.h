// SPDX-License-Identifier: Apache-2.0
// A file system whose answers are the test's own: it says that its root belongs to root and is
// closed to others, as anybody's server can, and has no files. Or it never says anything.
#ifndef SENTREL_TESTS_FUSEMOUNT_H
#define SENTREL_TESTS_FUSEMOUNT_H

#include <errno.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/Descriptors.h"

class FuseMount {
public:
    enum Manner { kAnswers, kHangs };

    FuseMount(const std::string& where, Manner manner) : point(where) {
        device.Reset(open("/dev/fuse", O_RDWR | O_CLOEXEC));
        const std::string data =
            "fd=" + std::to_string(device.Get()) + ",rootmode=40000,user_id=0,group_id=0";
        mounted = device && mount("test", point.c_str(), "fuse", 0, data.c_str()) == 0;
        if (mounted && manner == kAnswers) {
            server = fork();
            if (server == 0) {
                Serve();
            }
            device.Reset();
        }
    }
    FuseMount(const FuseMount&) = delete;
    FuseMount& operator=(const FuseMount&) = delete;
    ~FuseMount() {
        device.Reset();
        if (server > 0) {
            (void)kill(server, SIGKILL);
            (void)waitpid(server, nullptr, 0);
        }
        (void)umount2(point.c_str(), MNT_DETACH);
    }

    // False where this kernel or this place has no such file systems.
    bool IsMounted() const { return mounted; }

private:
    [[noreturn]] void Serve() const {
        alignas(8) char request[FUSE_MIN_READ_BUFFER];
        for (;;) {
            const ssize_t size = read(device.Get(), request, sizeof request);
            if (size < static_cast<ssize_t>(sizeof(fuse_in_header))) {
                _exit(0);
            }
            Answer(*reinterpret_cast<const fuse_in_header*>(request));
        }
    }

    void Answer(const fuse_in_header& asked) const {
        fuse_init_out first = {};
        fuse_attr_out root = {};
        first.major = FUSE_KERNEL_VERSION;
        first.minor = FUSE_KERNEL_MINOR_VERSION;
        first.max_write = 4096;
        root.attr.ino = 1;
        root.attr.nlink = 2;
        root.attr.mode = S_IFDIR | 0755;
        if (asked.opcode == FUSE_INIT) {
            Say(asked, 0, &first, sizeof first);
        } else if (asked.opcode == FUSE_GETATTR) {
            Say(asked, 0, &root, sizeof root);
        } else if (asked.opcode != FUSE_FORGET && asked.opcode != FUSE_INTERRUPT) {
            Say(asked, asked.opcode == FUSE_LOOKUP ? -ENOENT : -ENOSYS, nullptr, 0);
        }
    }

    void Say(const fuse_in_header& asked, int error, void* body, std::size_t size) const {
        fuse_out_header head = {};
        head.len = static_cast<unsigned>(sizeof head + size);
        head.error = error;
        head.unique = asked.unique;
        const iovec parts[] = {{&head, sizeof head}, {body, size}};
        (void)!writev(device.Get(), parts, size == 0 ? 1 : 2);
    }

    const std::string point;
    agent::OwnedFd device;
    bool mounted = false;
    pid_t server = -1;
};

#endif
