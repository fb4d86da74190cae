// SPDX-License-Identifier: Apache-2.0
#include "Handover.h"

#include <errno.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

namespace agent {

namespace {

// The kernel wants the room for a descriptor aligned as its header.
union Ancillary {
    cmsghdr aligned;
    char room[CMSG_SPACE(sizeof(int))];
};

}  // namespace

Result<Handover> OpenHandover() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return Refusal{std::string("no handing over: ") + std::strerror(errno)};
    }
    return Handover{OwnedFd(ends[0]), OwnedFd(ends[1])};
}

bool Give(const OwnedFd& giver, const Result<OwnedFd>& mount) {
    // Never empty: a message without a byte would not carry a descriptor, and would look like the
    // end.
    std::string text = (mount ? std::string() : mount.Reason().substr(0, 200)) + '\0';
    iovec part = {&text[0], text.size()};
    Ancillary ancillary = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (mount) {
        message.msg_control = ancillary.room;
        message.msg_controllen = sizeof ancillary.room;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        const int number = mount->Get();
        std::memcpy(CMSG_DATA(header), &number, sizeof number);
    }
    return sendmsg(giver.Get(), &message, MSG_NOSIGNAL) > 0;
}

Result<OwnedFd> Take(const OwnedFd& taker) {
    char text[256] = {};  // one byte more than is asked for stays its end
    iovec part = {text, sizeof text - 1};
    Ancillary ancillary = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = ancillary.room;
    message.msg_controllen = sizeof ancillary.room;
    if (recvmsg(taker.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0) {
        return Refusal{"the mount was not handed on"};
    }
    // Only our own process can have written here; a message without a descriptor is its refusal.
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) {
        return Refusal{text};
    }
    int number = -1;
    std::memcpy(&number, CMSG_DATA(header), sizeof number);
    return OwnedFd(number);
}

}  // namespace agent
