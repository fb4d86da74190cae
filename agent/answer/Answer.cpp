// SPDX-License-Identifier: Apache-2.0
#include "Answer.h"

#include <exception>

namespace agent {

Answer::~Answer() {
    try {
        const std::string text = std::to_string(status) + " " + std::to_string(value);
        sentrel::SR_DBusMessage reply = address.Return();
        if (reply.GetWriter().AppendString(text)) {
            replies.Send(uid, address, reply, text.size());
        }
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void Answer::Set(int newStatus, int newValue) {
    status = newStatus;
    value = newValue;
}

TextReply::~TextReply() {
    try {
        if (!error.empty()) {
            replies.Send(uid, address, address.Error(error, text), text.size());
            return;
        }
        sentrel::SR_DBusMessage reply = address.Return();
        if (reply.GetWriter().AppendString(text)) {
            replies.Send(uid, address, reply, text.size());
        }
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void TextReply::Set(const std::string& newText) {
    error.clear();
    text = newText;
}

void TextReply::SetError(const std::string& newName, const std::string& newText) {
    error = newName;
    text = newText;
}

}  // namespace agent
