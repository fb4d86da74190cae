// SPDX-License-Identifier: Apache-2.0
// The one answer that a call gets: sent when this object goes, whatever happened until then.
//
// Ownership: holds the call's return address, not the call. Replies is not owned and must outlive
// it. Threads: the one that runs the loop.
#ifndef SENTREL_AGENT_ANSWER_H
#define SENTREL_AGENT_ANSWER_H

#include <sentrel/SR_DBusReturnAddress.h>

#include <string>

#include "Replies.h"

namespace agent {

// To a request: a status and a value.
class Answer {
public:
    Answer(Replies& theReplies, uid_t callersUid, const sentrel::SR_DBusReturnAddress& to)
        : replies(theReplies), uid(callersUid), address(to) {}
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
    // Sends what was set last; status 1 when nothing was. A caller that wants no reply gets none.
    ~Answer();

    void Set(int newStatus, int newValue);

private:
    Replies& replies;
    const uid_t uid;
    const sentrel::SR_DBusReturnAddress address;
    int status = 1;
    int value = 0;
};

// To a question: a text, or an error as long as nothing was set.
class TextReply {
public:
    TextReply(Replies& theReplies, uid_t callersUid, const sentrel::SR_DBusReturnAddress& to)
        : replies(theReplies), uid(callersUid), address(to) {}
    TextReply(const TextReply&) = delete;
    TextReply& operator=(const TextReply&) = delete;
    ~TextReply();

    // The text must be UTF-8.
    void Set(const std::string& newText);
    void SetError(const std::string& newName, const std::string& newText);

private:
    Replies& replies;
    const uid_t uid;
    const sentrel::SR_DBusReturnAddress address;
    std::string error = "org.freedesktop.DBus.Error.Failed";
    std::string text = "the question was not answered";
};

}  // namespace agent

#endif
