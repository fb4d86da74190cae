// SPDX-License-Identifier: Apache-2.0
#include "Service.h"

namespace agent {

Service::Service(sentrel::SR_DBusConnection& bus)
    : gate(
          bus, [this](const Call& call, const SharedAnswer& answer) { TakeCall(call, answer); },
          [this](const Question& question, const std::shared_ptr<TextReply>& reply) {
              TakeQuestion(question, reply);
          }),
      callers(bus) {}

void Service::Serve(const OnRequest& onRequest, const OnQuestion& onQuestion,
                    const OnUnknown& onUnknown) {
    requests = onRequest;
    questions = onQuestion;
    unknown = onUnknown;
}

// An answer that nobody keeps says that the request failed; so it does when the bus does not know
// the caller, or when too many wait to be known.
void Service::TakeCall(const Call& call, const SharedAnswer& answer) {
    const auto received = std::chrono::steady_clock::now();
    callers.Ask(
        call.sender,
        [this, call, answer, received](const Caller& caller) {
            if (requests) {
                requests(Arrival{call, caller, received, answer});
            }
        },
        [this, call](const std::string& reason) {
            if (unknown) {
                unknown(call, reason);
            }
        });
}

void Service::TakeQuestion(const Question& question, const std::shared_ptr<TextReply>& reply) {
    callers.Ask(
        question.sender,
        [this, question, reply](const Caller& caller) {
            if (questions) {
                questions(question, caller, reply);
            }
        },
        [](const std::string& /*reason*/) {});
}

}  // namespace agent
