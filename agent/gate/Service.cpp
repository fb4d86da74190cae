// SPDX-License-Identifier: Apache-2.0
#include "Service.h"

#include <boost/make_shared.hpp>
#include <cstring>
#include <exception>

#include "answer/Log.h"

namespace agent {

namespace {

const char kBus[] = "org.freedesktop.DBus";
const char kTooMany[] = "org.freedesktop.DBus.Error.LimitsExceeded";
const int kMethodCall = 1;  // libdbus's message type
const int kDoNotQueue = 4;  // libdbus's flag for names

// About what an errand and what belongs to it take in memory.
std::size_t SizeOf(const std::shared_ptr<const Errand>& errand) {
    std::size_t size = 512;
    if (errand && errand->call) {
        size += errand->call->operation.size() + errand->call->text.size();
    }
    if (errand && errand->question) {
        size += errand->question->operation.size() + errand->question->text.size();
    }
    return size;
}

// What is thrown must not take the loop along.
template <typename Function>
void Guarded(const std::string& sender, const Function& function) {
    try {
        function();
    } catch (const std::exception& exception) {
        Complain("a message of " + sender + ": " + exception.what());
    }
}

}  // namespace

Service::Service(sentrel::SR_MainLoop& loop, sentrel::SR_DBusConnection& connection_,
                 std::size_t requestsPerMinute)
    : connection(connection_),
      tolls(requestsPerMinute),
      replies(connection_),
      gate(connection_),
      callers(connection_),
      work(loop),
      filter(connection_,
             sentrel::Slot<bool, const sentrel::SR_DBusCallMessage&>(
                 boost::make_shared<
                     sentrel::Callback<Service, bool, const sentrel::SR_DBusCallMessage&> >(
                     this, &Service::Take))) {
    // Names that are given up: what their connections have not read goes with them.
    connection.AddMatch(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2=''");
}

void Service::Serve(RequestTaker& requests_, QuestionTaker& questions_) {
    requests = &requests_;
    questions = &questions_;
    replies.OnLeftAlone(
        [this](uid_t uid, std::size_t bytes) { requests->TakeLeftAlone(uid, bytes); });
}

// The library does not report the bus's answer to the request, so the bus is asked who has it.
Check Service::TakeName() {
    connection.RequestName(kServiceName, kDoNotQueue);
    sentrel::SR_DBusCallMessage question;
    (void)question.SetDestination(kBus);
    (void)question.SetPath("/org/freedesktop/DBus");
    (void)question.SetInterface(kBus);
    (void)question.SetMember("GetNameOwner");
    (void)question.GetWriter().AppendString(kServiceName);
    const sentrel::SR_DBusMessage reply = connection.SendReplyAndBlock(question, -1);
    const char* own = connection.GetUniqueName();
    if (own == nullptr || std::strcmp(reply.GetReader().GetString(), own) != 0) {
        return Refusal{std::string("another process owns ") + kServiceName + "; it must end first"};
    }
    return Fine();
}

// True: libdbus does nothing more with it.
bool Service::Take(const sentrel::SR_DBusCallMessage& message) {
    const char* const sender = message.GetSender();
    if (sender == nullptr || std::strcmp(sender, kBus) == 0) {
        TakeFromBus(message);
        return false;
    }
    work.Arrived();
    const auto received = std::chrono::steady_clock::now();
    const bool isCall = message.GetType() == kMethodCall;
    const std::string from = sender;
    Guarded(from, [&] {
        if (const Caller* known = callers.Find(from)) {
            const Caller caller = *known;
            const Admission admission = Count(caller.uid);
            if (isCall && admission != Admission::kSilent) {
                Admit(gate.Read(message), caller, admission, received);
            }
            return;
        }
        const std::shared_ptr<const Errand> errand = isCall ? gate.Read(message) : nullptr;
        callers.Ask(
            from, SizeOf(errand),
            [this, errand, received](const Caller& caller) {
                const Admission admission = Count(caller.uid);
                if (errand && admission != Admission::kSilent) {
                    Admit(errand, caller, admission, received);
                }
            },
            [this, from, errand](const std::string& reason) {
                if (requests != nullptr) {
                    requests->TakeUnknown(from, errand ? errand->call : std::nullopt, reason);
                }
            });
    });
    return true;
}

void Service::TakeFromBus(const sentrel::SR_DBusCallMessage& message) {
    if (!message.IsSignal(kBus, "NameOwnerChanged")) {
        return;
    }
    sentrel::SR_DBusMessageIter reader = message.GetReader();
    const std::string name = reader.GetString();
    callers.Forget(name);
    replies.Forget(name);
}

Admission Service::Count(uid_t uid) {
    const Admission admission = tolls.Count(uid, std::chrono::steady_clock::now());
    if (admission != Admission::kTaken && requests != nullptr) {
        requests->TakeTooMany(uid);
    }
    return admission;
}

void Service::Admit(const std::shared_ptr<const Errand>& errand, const Caller& caller,
                    Admission admission, std::chrono::steady_clock::time_point received) {
    work.Add(caller.uid, [this, errand, caller, admission, received] {
        Guarded(caller.busName, [&] { Carry(*errand, caller, admission, received); });
    });
}

void Service::Carry(const Errand& errand, const Caller& caller, Admission admission,
                    std::chrono::steady_clock::time_point received) {
    if (errand.call) {
        // An answer that nobody keeps says that the request failed.
        const auto answer = std::make_shared<Answer>(replies, caller.uid, errand.address);
        if (requests != nullptr) {
            requests->Take(Arrival{*errand.call, caller, received, answer, admission});
        }
    } else if (admission != Admission::kTaken) {
        TextReply(replies, caller.uid, errand.address)
            .SetError(kTooMany, "too many calls in a minute");
    } else if (errand.question) {
        const auto reply = std::make_shared<TextReply>(replies, caller.uid, errand.address);
        if (questions != nullptr) {
            questions->Answer(*errand.question, caller, reply);
        }
    } else if (errand.text) {
        const auto reply = std::make_shared<TextReply>(replies, caller.uid, errand.address);
        reply->Set(*errand.text);
    } else {
        replies.Send(caller.uid, errand.address, *errand.reply, 100);
    }
}

}  // namespace agent
