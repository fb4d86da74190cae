// SPDX-License-Identifier: Apache-2.0
#include "Answer.h"

#include <exception>

namespace agent {

namespace {

void SendText(Replies& replies, uid_t uid, const sentrel::SR_DBusReturnAddress& address,
              const std::string& text) {
    sentrel::SR_DBusMessage reply = address.Return();
    if (reply.GetWriter().AppendString(text)) {
        replies.Send(uid, address, reply, text.size());
    }
}

}  // namespace

Answer::~Answer() {
    try {
        SendText(replies, uid, address, std::to_string(status) + " " + std::to_string(value));
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void Answer::Set(int status_, int value_) {
    status = status_;
    value = value_;
}

TextReply::~TextReply() {
    try {
        if (error.empty()) {
            SendText(replies, uid, address, text);
        } else {
            replies.Send(uid, address, address.Error(error, text), text.size());
        }
    } catch (const std::exception&) {
        // Out of memory: the caller's wait ends with its timeout.
    }
}

void TextReply::Set(const std::string& text_) {
    error.clear();
    text = text_;
}

void TextReply::SetError(const std::string& error_, const std::string& text_) {
    error = error_;
    text = text_;
}

}  // namespace agent
