// What one log(_:level:) call of the application logger costs its caller, against a spdlog
// asynchronous logger: both only hand the line over, and the writing happens elsewhere (our
// main queue and destination queues; spdlog's thread pool). Prints the ratio at the end.
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <stdlib.h>

#include <QCoreApplication>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "core/TarnLogger.h"
#include "logging/LogCenter.h"
#include "support/CallerCost.h"

namespace {

namespace fs = std::filesystem;
using morvane::LogLevel;
using morvane::TarnLogger;

constexpr int kBatch = 1000;
constexpr const char* kMessage = "onChange: connected, refreshing the device configuration";

double tarnNanoseconds = 0;
double spdlogNanoseconds = 0;

fs::path benchHome() {
    static const fs::path home = [] {
        char pattern[] = "/tmp/morvane-bench-XXXXXX";
        const fs::path made = ::mkdtemp(pattern);
        // The logger writes Tarn.log into the user's data folder: keep it out of the account.
        ::setenv("HOME", made.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (made / "data").c_str(), 1);
        ::setenv("XDG_CACHE_HOME", (made / "cache").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (made / "config").c_str(), 1);
        return made;
    }();
    return home;
}

// Only the calls are timed. Between batches the main queue runs what they posted, untimed,
// so that the queue never grows without bound; the console destination is dropped so that
// the terminal does not slow the drain.
void TarnLoggerCallerCost(benchmark::State& state) {
    benchHome();
    auto logger = std::make_shared<TarnLogger>();
    logger->log("start", LogLevel::production);
    QCoreApplication::processEvents();
    morvane::logging::LogCenter::removeAllDestinations();
    tarnNanoseconds = morvane::bench::callerNanoseconds(
        state, kBatch, [&] { logger->log(kMessage, LogLevel::warning); },  // written nowhere
        [] { QCoreApplication::processEvents(); });
}

void SpdlogAsyncCallerCost(benchmark::State& state) {
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(
        (benchHome() / "spdlog-async.log").string(), true);
    auto logger = std::make_shared<spdlog::async_logger>("async", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_level(spdlog::level::trace);
    spdlogNanoseconds = morvane::bench::callerNanoseconds(
        state, kBatch, [&] { logger->trace(kMessage); },
        [&] { morvane::bench::waitUntilEmpty(*pool); });
}

BENCHMARK(TarnLoggerCallerCost)->UseManualTime()->MinTime(1.0);
BENCHMARK(SpdlogAsyncCallerCost)->UseManualTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (tarnNanoseconds > 0 && spdlogNanoseconds > 0) {
        std::printf(
            "\nratio (ours / peer):\n  caller ns per call TarnLogger / spdlog async  %.3f"
            "  (%.0f vs %.0f)\n",
            tarnNanoseconds / spdlogNanoseconds, tarnNanoseconds, spdlogNanoseconds);
    }
    std::error_code ignored;
    fs::remove_all(benchHome(), ignored);
    return 0;
}
