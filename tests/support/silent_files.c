// SPDX-License-Identifier: Apache-2.0
// silent_files FOLDER OPERATION: mounts a file system of its own on FOLDER in which every name is a
// file that everybody may open and write. Requests of one kind, "flush" or "statfs", it reads and
// never answers; whoever made one hangs in the kernel until this program ends. Speaks to the
// kernel directly, without a library.
//
// On its output: "ready" when it is mounted, then "silent" for each request left without an answer.
// Ends with 77 and "cannot: REASON" where it may not mount.
#include <errno.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

enum { kFolder = FUSE_ROOT_ID, kFile = 2 };

static int device;

static void Say(const char* line) {
    printf("%s\n", line);
    fflush(stdout);
}

static void Answer(__u64 request, int error, const void* data, size_t size) {
    char message[sizeof(struct fuse_out_header) + 256];
    const struct fuse_out_header head = {(__u32)(sizeof head + size), error, request};
    memcpy(message, &head, sizeof head);
    if (size > 0) {
        memcpy(message + sizeof head, data, size);
    }
    // The kernel no longer wants an answer when the one who asked was killed.
    (void)!write(device, message, sizeof head + size);
}

static struct fuse_attr AttributesOf(__u64 node) {
    struct fuse_attr attributes;
    memset(&attributes, 0, sizeof attributes);
    attributes.ino = node;
    attributes.nlink = 1;
    attributes.mode = node == kFolder ? S_IFDIR | 0777 : S_IFREG | 0666;
    return attributes;
}

static void Serve(const struct fuse_in_header* request) {
    struct fuse_init_out start = {.major = FUSE_KERNEL_VERSION, .minor = 31, .max_write = 4096};
    struct fuse_attr_out attributes = {.attr_valid = 1000};
    struct fuse_entry_out entry = {.nodeid = kFile, .attr_valid = 1000, .entry_valid = 1000};
    struct fuse_open_out opened = {.fh = 1};
    struct fuse_statfs_out system = {.st = {.bsize = 4096}};
    attributes.attr = AttributesOf(request->nodeid);
    entry.attr = AttributesOf(kFile);
    switch (request->opcode) {
        case FUSE_INIT:
            Answer(request->unique, 0, &start, sizeof start);
            break;
        case FUSE_GETATTR:
            Answer(request->unique, 0, &attributes, sizeof attributes);
            break;
        case FUSE_LOOKUP:
            Answer(request->unique, 0, &entry, sizeof entry);
            break;
        case FUSE_OPEN:
            Answer(request->unique, 0, &opened, sizeof opened);
            break;
        case FUSE_STATFS:
            Answer(request->unique, 0, &system, sizeof system);
            break;
        case FUSE_FLUSH:
        case FUSE_RELEASE:
            Answer(request->unique, 0, NULL, 0);
            break;
        case FUSE_FORGET:
        case FUSE_BATCH_FORGET:
        case FUSE_INTERRUPT:
            break;  // these want no answer
        default:
            Answer(request->unique, -ENOSYS, NULL, 0);
    }
}

static int Mount(const char* folder) {
    char options[128];
    device = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (device < 0) {
        return -1;
    }
    snprintf(options, sizeof options, "fd=%d,rootmode=40000,user_id=0,group_id=0,allow_other",
             device);
    return mount("silent", folder, "fuse", MS_NOSUID | MS_NODEV, options);
}

int main(int argc, char** argv) {
    static char buffer[1 << 17];
    if (argc != 3) {
        return 2;
    }
    const __u32 silent = strcmp(argv[2], "flush") == 0 ? FUSE_FLUSH : FUSE_STATFS;
    if (Mount(argv[1]) != 0) {
        printf("cannot: %s\n", strerror(errno));
        return 77;
    }
    Say("ready");
    for (;;) {
        const ssize_t size = read(device, buffer, sizeof buffer);
        const struct fuse_in_header* const request = (const struct fuse_in_header*)buffer;
        if (size < (ssize_t)sizeof *request) {
            if (size < 0 && (errno == EINTR || errno == ENOENT)) {
                continue;  // one that was taken back
            }
            return 0;
        }
        if (request->opcode == silent) {
            Say("silent");
        } else {
            Serve(request);
        }
    }
}
