// SPDX-License-Identifier: Apache-2.0
// Where the answer to a call goes, without the call: a call may be large, and whoever answers later
// need not keep it.
//
// A value object: copies are independent, and may be used on any thread.
#ifndef SENTREL_SR_DBUSRETURNADDRESS_H
#define SENTREL_SR_DBUSRETURNADDRESS_H

#include <dbus/dbus.h>

#include <string>

#include "SR_DBusMessage.h"
#include "SR_Export.h"

namespace sentrel {

class SR_EXPORT SR_DBusReturnAddress {
public:
    // Of a call that was received, so one that has a sender.
    explicit SR_DBusReturnAddress(const SR_DBusMessage& call);

    // The bus name that has called; empty when the call names none.
    const std::string& GetSender() const { return sender; }
    // Whether the caller waits for an answer.
    bool WantsReply() const { return wanted; }

    // A method return, without arguments until some are appended. Throws std::bad_alloc, as the
    // next.
    SR_DBusMessage Return() const;
    // An error; `name` must be well-formed, `text` valid UTF-8.
    SR_DBusMessage Error(const std::string& name, const std::string& text) const;

private:
    SR_HIDDEN SR_DBusMessage Reply(int type) const;

    std::string sender;
    dbus_uint32_t serial;
    bool wanted;
};

}  // namespace sentrel

#endif
