#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

namespace morvane::bench {

/// What a call costs the thread that makes it, when the work it hands over is done elsewhere.
/// Only the calls are timed, `batch` to an iteration; `drain` runs between batches, untimed,
/// so that no queue grows without bound and the caller never waits for the disk. Gives the
/// mean nanoseconds per call, also shown as the "ns/call" counter. Register the benchmark
/// with UseManualTime().
template <typename Call, typename Drain>
double callerNanoseconds(benchmark::State& state, int batch, Call call, Drain drain) {
    double total = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < batch; ++i) {
            call();
        }
        const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(spent.count());
        total += spent.count();
        drain();
    }
    const double nanoseconds = total * 1e9 / (static_cast<double>(state.iterations()) * batch);
    state.counters["ns/call"] = nanoseconds;
    return nanoseconds;
}

/// A drain for a thread pool that tells how many items wait in its queue, such as spdlog's.
template <typename Pool>
void waitUntilEmpty(Pool& pool) {
    while (pool.queue_size() > 0) {
        std::this_thread::yield();
    }
}

}  // namespace morvane::bench
