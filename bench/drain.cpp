// SPDX-License-Identifier: Apache-2.0
// Draining a dispatch queue. Workload: N connections, each with the messages that the bus sent it
// when it came, stand in the queue of one SR_DBusDispatcher; one DispatchPending is measured.
//
//   --connections N (16)     --rounds-of N (10)
//
// Prints one line of JSON: count, median, spread, minimum, maximum of one drain's time.
#include <sentrel/sentrel.h>

#include <cstdio>
#include <list>
#include <vector>

#include "measure.h"

namespace {

std::uint64_t DrainOnce(long connections) {
    sentrel::SR_DBusDispatcher dispatcher;
    std::list<sentrel::SR_DBusConnection> open;
    for (long i = 0; i < connections; ++i) {
        // The connection puts itself into the queue; the queue is drained below for the first time.
        open.push_back(sentrel::SR_DBusConnection::SystemBus(dispatcher));
    }
    const std::uint64_t before = measure_now();
    dispatcher.DispatchPending();
    return measure_now() - before;
}

}  // namespace

int main(int argc, char** argv) {
    const long connections = measure_option(argc, argv, "--connections", 16);
    const long rounds = measure_option(argc, argv, "--rounds-of", 10);
    try {
        std::vector<std::uint64_t> samples;
        for (long i = 0; i < rounds; ++i) {
            samples.push_back(DrainOnce(connections));
        }
        const statistics summary = measure_statistics(samples.data(), samples.size());
        std::printf("{\"connections\":%ld,\"count\":%ld,", connections, rounds);
        measure_print(&summary);
        std::puts("}");
    } catch (const std::exception& exception) {
        measure_fail(exception.what());
    }
}
