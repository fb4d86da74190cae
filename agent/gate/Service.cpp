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
        StandardError().WriteLine("a message of " + sender + ": " + exception.what());
    }
}

}  // namespace

Service::Service(sentrel::SR_MainLoop& loop, sentrel::SR_DBusConnection& bus,
                 std::size_t requestsPerMinute)
    : tolls(requestsPerMinute),
      replies(bus),
      gate(bus),
      callers(bus),
      work(loop),
      filter(bus, sentrel::Slot<bool, const sentrel::SR_DBusCallMessage&>(
                      boost::make_shared<
                          sentrel::Callback<Service, bool, const sentrel::SR_DBusCallMessage&> >(
                          this, &Service::Take))) {
    // Names that are given up: what their connections have not read goes with them.
    bus.AddMatch(
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg2=''");
}

void Service::Serve(const Receivers& newReceivers) {
    receivers = newReceivers;
    replies.OnLeftAlone(receivers.leftAlone);
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
        Turn turn = Turn::kTaken;
        if (const Caller* known = callers.Find(from)) {
            const Caller caller = *known;
            if (Counts(caller, turn) && isCall) {
                Admit(gate.Read(message), caller, turn, received);
            }
            return;
        }
        const std::shared_ptr<const Errand> errand = isCall ? gate.Read(message) : nullptr;
        callers.Ask(
            from, SizeOf(errand),
            [this, errand, received](const Caller& caller) {
                Turn itsTurn = Turn::kTaken;
                if (Counts(caller, itsTurn) && errand) {
                    Admit(errand, caller, itsTurn, received);
                }
            },
            [this, from, errand](const std::string& reason) {
                if (receivers.unknown) {
                    receivers.unknown(from, errand ? errand->call : std::nullopt, reason);
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

// Whether anything is to be done for the message.
bool Service::Counts(const Caller& caller, Turn& turn) {
    turn = tolls.Count(caller.uid, std::chrono::steady_clock::now());
    if (turn != Turn::kTaken && receivers.tooMany) {
        receivers.tooMany(caller.uid);
    }
    return turn != Turn::kSilent;
}

void Service::Admit(const std::shared_ptr<const Errand>& errand, const Caller& caller, Turn turn,
                    std::chrono::steady_clock::time_point received) {
    work.Add(caller.uid, [this, errand, caller, turn, received] {
        Guarded(caller.busName, [&] { Carry(*errand, caller, turn, received); });
    });
}

void Service::Carry(const Errand& errand, const Caller& caller, Turn turn,
                    std::chrono::steady_clock::time_point received) {
    if (errand.call) {
        // An answer that nobody keeps says that the request failed.
        const auto answer = std::make_shared<Answer>(replies, caller.uid, errand.address);
        if (receivers.request) {
            receivers.request(Arrival{*errand.call, caller, received, answer, turn});
        }
    } else if (turn != Turn::kTaken) {
        TextReply(replies, caller.uid, errand.address)
            .SetError(kTooMany, "too many calls in a minute");
    } else if (errand.question) {
        const auto reply = std::make_shared<TextReply>(replies, caller.uid, errand.address);
        if (receivers.question) {
            receivers.question(*errand.question, caller, reply);
        }
    } else if (errand.text) {
        const auto reply = std::make_shared<TextReply>(replies, caller.uid, errand.address);
        reply->Set(*errand.text);
    } else {
        replies.Send(caller.uid, errand.address, *errand.reply, 100);
    }
}

}  // namespace agent
