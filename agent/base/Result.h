// SPDX-License-Identifier: Apache-2.0
// What a step gives: its value, or why there is none.
//
//     Result<OwnedFd> Open(const std::string& path);
//
//     Result<OwnedFd> file = Open(path);
//     if (!file) {
//         return file.GetRefusal();  // becomes any other Result
//     }
//     Use(file->Get());
//
// A step that gives nothing but its success is a Check. Value types.
#ifndef SENTREL_AGENT_RESULT_H
#define SENTREL_AGENT_RESULT_H

#include <sentrel/SR_Status.h>

#include <string>
#include <utility>
#include <variant>

namespace agent {

struct Refusal {
    std::string reason;    // one sentence
    int status = SR_FAIL;  // for the answer; never SR_OK
};

template <typename Value>
class [[nodiscard]] Result {
public:
    // Without `explicit`, deliberately: a step ends with `return value;` or `return Refusal{...};`.
    Result(Value&& given) : outcome(std::in_place_index<0>, std::move(given)) {}
    Result(const Value& given) : outcome(std::in_place_index<0>, given) {}
    Result(const Refusal& refusal) : outcome(std::in_place_index<1>, refusal) {}

    explicit operator bool() const { return outcome.index() == 0; }

    // These three: only where there is a value.
    Value& operator*() { return std::get<0>(outcome); }
    const Value& operator*() const { return std::get<0>(outcome); }
    Value* operator->() { return &std::get<0>(outcome); }
    const Value* operator->() const { return &std::get<0>(outcome); }

    // These three: only where there is none.
    const Refusal& GetRefusal() const { return std::get<1>(outcome); }
    const std::string& Reason() const { return GetRefusal().reason; }
    int Status() const { return GetRefusal().status; }

private:
    std::variant<Value, Refusal> outcome;
};

struct Success {};
typedef Result<Success> Check;
// What a Check returns when all is well.
inline Check Fine() {
    return Success{};
}

}  // namespace agent

#endif
