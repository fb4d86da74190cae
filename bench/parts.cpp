// SPDX-License-Identifier: Apache-2.0
// The parts of a call that need no bus, each alone. Workloads: one log line, dropped by the sink
// (dlog_dropped.c); one dispatcher made and destroyed; one request message built, with N bytes of
// argument text; one watch registered in a loop of N others and taken back.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sentrel/sentrel.h>

#include <deque>
#include <sstream>
#include <string>

namespace {

void LogLine(benchmark::State& state) {
    for (auto _ : state) {
        std::stringstream text;
        text << "Connection (unique name: "
             << ":1.42"
             << ") added match rule "
             << "type='signal'";
        sentrel::SR_Log::PrintMessage(sentrel::SR_Log::DBG, __FILE__, __func__, __LINE__, text);
    }
}
BENCHMARK(LogLine);

void Dispatcher(benchmark::State& state) {
    for (auto _ : state) {
        sentrel::SR_DBusDispatcher dispatcher;
        benchmark::DoNotOptimize(&dispatcher);
    }
}
BENCHMARK(Dispatcher);

void RequestMessage(benchmark::State& state) {
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        sentrel::SR_DBusCallMessage call;
        sentrel::SR_DBusMessageIter writer = call.GetWriter();
        if (!writer.AppendString("sr_mount") || !writer.AppendString(text) ||
            !writer.AppendInt32(0)) {
            state.SkipWithError("out of memory");
            break;
        }
    }
}
BENCHMARK(RequestMessage)->Arg(0)->Arg(1024)->Arg(65536);

void WatchMadeAndDestroyed(benchmark::State& state) {
    sentrel::SR_MainLoop loop;
    std::deque<sentrel::SR_WatchEvent> others;
    for (int64_t i = 0; i < state.range(0); ++i) {
        others.emplace_back(0, POLLIN, &loop);
    }
    for (auto _ : state) {
        sentrel::SR_WatchEvent watch(0, POLLIN, &loop);
        benchmark::DoNotOptimize(&watch);
    }
}
BENCHMARK(WatchMadeAndDestroyed)->Arg(0)->Arg(16)->Arg(256)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
