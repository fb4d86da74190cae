// SPDX-License-Identifier: Apache-2.0
#include "Handover.h"

#include <sys/socket.h>

#include <cstring>

namespace agent {

namespace {

union Ancillary {
    cmsghdr aligned;
    char room[CMSG_SPACE(sizeof(int))];
};

}  // namespace

bool OpenHandover(OwnedFd& giver, OwnedFd& taker) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    giver.Reset(ends[0]);
    taker.Reset(ends[1]);
    return true;
}

bool Give(const OwnedFd& giver, const OwnedFd& mount, const std::string& reason) {
    std::string text = reason.substr(0, 200) + '\0';  // never empty
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
        const int number = mount.Get();
        std::memcpy(CMSG_DATA(header), &number, sizeof number);
    }
    return sendmsg(giver.Get(), &message, MSG_NOSIGNAL) > 0;
}

OwnedFd Take(const OwnedFd& taker, std::string& reason) {
    char text[256] = {};
    iovec part = {text, sizeof text - 1};
    Ancillary ancillary = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = ancillary.room;
    message.msg_controllen = sizeof ancillary.room;
    reason = "the mount was not handed on";
    if (recvmsg(taker.Get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0) {
        return OwnedFd();
    }
    reason = text;
    const cmsghdr* const header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) {
        return OwnedFd();
    }
    int number = -1;
    std::memcpy(&number, CMSG_DATA(header), sizeof number);
    return OwnedFd(number);
}

}  // namespace agent
