// SPDX-License-Identifier: Apache-2.0
// The one answer that a call gets. It is sent when the object goes, and only then: whoever works on
// the call holds the object, sets what is to be said as often as it likes, and lets go of it when
// the work is done. So no way through the rooms can answer twice, and none can forget to: an object
// that goes without a word, also because something was thrown, says that the call failed.
//
// Ownership: holds the call's return address, not the call. Replies is not owned and must outlive
// it. Fails without a word when memory has ended. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_ANSWER_H
#define SENTREL_AGENT_ANSWER_H

#include <sentrel/SR_DBusReturnAddress.h>
#include <sentrel/SR_Status.h>

#include <string>

#include "Replies.h"

namespace agent {

// To a request: a status and a value.
class Answer {
public:
    Answer(Replies& replies_, uid_t uid_, const sentrel::SR_DBusReturnAddress& address_)
        : replies(replies_), uid(uid_), address(address_) {}
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
    // Sends what was set last; status SR_FAIL when nothing was. A caller that wants no reply gets
    // none.
    ~Answer();

    void Set(int status_, int value_);

private:
    Replies& replies;
    const uid_t uid;
    const sentrel::SR_DBusReturnAddress address;
    int status = SR_FAIL;
    int value = 0;
};

// To a question: a text, or an error as long as nothing was set.
class TextReply {
public:
    TextReply(Replies& replies_, uid_t uid_, const sentrel::SR_DBusReturnAddress& address_)
        : replies(replies_), uid(uid_), address(address_) {}
    TextReply(const TextReply&) = delete;
    TextReply& operator=(const TextReply&) = delete;
    ~TextReply();

    // The text must be UTF-8.
    void Set(const std::string& text_);
    // `error_`: the error's name on the bus.
    void SetError(const std::string& error_, const std::string& text_);

private:
    Replies& replies;
    const uid_t uid;
    const sentrel::SR_DBusReturnAddress address;
    std::string error = "org.freedesktop.DBus.Error.Failed";
    std::string text = "the question was not answered";
};

}  // namespace agent

#endif
