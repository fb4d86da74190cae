// SPDX-License-Identifier: Apache-2.0
// Inside the library: the box that all copies of one message share. Deleting it leaves libdbus's
// message alone; the message objects count its references.
#ifndef SENTREL_SR_DBUSMESSAGEIMPL_H
#define SENTREL_SR_DBUSMESSAGEIMPL_H

#include "SR_DBusMessage.h"

namespace sentrel {

class SR_HIDDEN SR_DBusMessage::Impl {
public:
    typedef DBusMessage Internal;

    // `existing` may be null. No reference is taken here.
    explicit Impl(Internal* existing = nullptr) : handle(existing) {}

    // The libdbus message of any message object; borrowed.
    static Internal* Of(const SR_DBusMessage& message) { return message.impl->handle; }

    Internal* handle;
};

}  // namespace sentrel

#endif
