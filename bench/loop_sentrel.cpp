// SPDX-License-Identifier: Apache-2.0
// The library's loop: one SR_MainLoop::Dispatch.
#include <poll.h>
#include <sentrel/SR_MainLoop.h>

#include <boost/make_shared.hpp>

#include "loop.h"

extern const char loop_peer[];
extern const int loop_step_is_exact;
const char loop_peer[] = "SR_MainLoop";
const int loop_step_is_exact = 1;

namespace {

sentrel::SR_MainLoop mainLoop;

struct Target {
    void Serve(sentrel::SR_WatchEvent& event) { loop_served(event.GetDescriptor()); }
};
Target target;

class Watch : public sentrel::SR_WatchEvent {
public:
    explicit Watch(int watched) : SR_WatchEvent(watched, POLLIN, &mainLoop) {
        callback = boost::make_shared<sentrel::Callback<Target, void, sentrel::SR_WatchEvent&> >(
            &target, &Target::Serve);
    }
};

}  // namespace

void loop_open(int count, const int* descriptors) {
    for (int i = 0; i < count; ++i) {
        new Watch(descriptors[i]);  // the loop deletes it
    }
}

void loop_step() {
    mainLoop.Dispatch();
}
