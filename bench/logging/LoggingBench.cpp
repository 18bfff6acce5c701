// Lines per second through FileDestination against the floor its design allows (open,
// append, close per line, same bytes) and against spdlog flushing every line; and what a log
// call costs its caller against a spdlog asynchronous logger. Prints the ratios at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "logging/FileDestination.h"
#include "logging/LogCenter.h"
#include "platform/DispatchQueue.h"
#include "support/CallerCost.h"

namespace {

using morvane::logging::FileDestination;
using morvane::logging::Level;
using morvane::logging::LogCenter;
namespace fs = std::filesystem;

constexpr int kBatch = 1000;
// The application's file template and a typical stamped message.
constexpr const char* kFormat = "$Dyyyy-MM-dd HH:mm:ss.SSS$d $C$L$c: $M";
constexpr const char* kSpdlogPattern = "%Y-%m-%d %H:%M:%S.%e VERBOSE: %v";
const std::string kMessage =
    "2.1.0 (1) :  onChange: connected, refreshing the device configuration for abc-123";

const fs::path& benchDir() {
    static const fs::path dir = [] {
        std::string pattern = (fs::temp_directory_path() / "logging-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        return fs::path(pattern);
    }();
    return dir;
}

fs::path freshFile(const std::string& name) {
    const fs::path file = benchDir() / name;
    fs::remove(file);
    return file;
}

std::shared_ptr<FileDestination> installFileDestination(const fs::path& file) {
    LogCenter::removeAllDestinations();
    auto destination = std::make_shared<FileDestination>(file);
    destination->setFormat(kFormat);
    LogCenter::addDestination(destination);
    return destination;
}

void setLinesPerSecond(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["lines/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * kBatch,
                                                   benchmark::Counter::kIsRate);
}

void FileDestinationLines(benchmark::State& state) {
    auto destination = installFileDestination(freshFile("destination.log"));
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            LogCenter::verbose(kMessage, __FILE__, "log(_:level:)", __LINE__);
        }
        destination->queue()->waitUntilIdle();
    }
    setLinesPerSecond(state);
    LogCenter::removeAllDestinations();
}

std::vector<std::string> renderedLines() {
    FileDestination renderer(std::optional<fs::path>(benchDir() / "unused"));
    renderer.setLogFileURL(std::nullopt);
    renderer.setFormat(kFormat);
    std::vector<std::string> lines;
    for (int i = 0; i < kBatch; ++i) {
        lines.push_back(
            renderer.renderLine(Level::verbose, kMessage, "", __FILE__, "log()", 1, std::nullopt) +
            "\n");
    }
    return lines;
}

// The floor of the design: the same bytes, one open, append and close per line. With
// `lock`, the exclusive claim on the file is taken too, as the destination must.
void plainAppends(benchmark::State& state, const std::string& name, bool lock) {
    const fs::path file = freshFile(name);
    const auto lines = renderedLines();
    for (auto _ : state) {
        for (const auto& line : lines) {
            const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0 || (lock && ::flock(fd, LOCK_EX) != 0) ||
                ::write(fd, line.data(), line.size()) < 0) {
                state.SkipWithError("plain append failed");
            }
            ::close(fd);
        }
    }
    setLinesPerSecond(state);
}

void PlainOpenAppendClose(benchmark::State& state) {
    plainAppends(state, "plain.log", false);
}

void PlainOpenLockAppendClose(benchmark::State& state) {
    plainAppends(state, "plain-locked.log", true);
}

void SpdlogFlushEachLine(benchmark::State& state) {
    auto logger = spdlog::basic_logger_mt("flush-each-line", freshFile("spdlog.log").string());
    logger->set_pattern(kSpdlogPattern);
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            logger->trace(kMessage);
        }
    }
    setLinesPerSecond(state);
    spdlog::drop("flush-each-line");
}

// The destination's own work per line without the queue: render, lock, append, close.
void FileDestinationSendOnly(benchmark::State& state) {
    FileDestination destination(freshFile("send-only.log"));
    destination.setFormat(kFormat);
    for (auto _ : state) {
        for (int i = 0; i < kBatch; ++i) {
            destination.send(Level::verbose, kMessage, "", __FILE__, "log()", 1, std::nullopt);
        }
    }
    setLinesPerSecond(state);
}

// What rendering alone costs the destination's queue, for reading the figures above.
void RenderLine(benchmark::State& state) {
    FileDestination renderer(std::optional<fs::path>(benchDir() / "unused"));
    renderer.setFormat(kFormat);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            renderer.renderLine(Level::verbose, kMessage, "", __FILE__, "log()", 1, std::nullopt));
    }
}

// The destination drains between batches, untimed.
void FileDestinationCallerCost(benchmark::State& state) {
    auto destination = installFileDestination(freshFile("caller.log"));
    morvane::bench::callerNanoseconds(
        state, kBatch, [] { LogCenter::verbose(kMessage, __FILE__, "log(_:level:)", __LINE__); },
        [&] { destination->queue()->waitUntilIdle(); });
    LogCenter::removeAllDestinations();
}

void SpdlogAsyncCallerCost(benchmark::State& state) {
    // The queue holds a whole batch, so the caller is never held back by the overflow policy.
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto sink =
        std::make_shared<spdlog::sinks::basic_file_sink_mt>(freshFile("spdlog-async.log").string());
    auto logger = std::make_shared<spdlog::async_logger>("async", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_pattern(kSpdlogPattern);
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
    morvane::bench::callerNanoseconds(
        state, kBatch, [&] { logger->trace(kMessage); },
        [&] { morvane::bench::waitUntilEmpty(*pool); });
}

// The machine is shared: each figure is the median of a few repetitions.
BENCHMARK(FileDestinationLines)->UseRealTime()->MinTime(1.5)->Repetitions(3);
BENCHMARK(PlainOpenAppendClose)->UseRealTime()->MinTime(1.5)->Repetitions(3);
BENCHMARK(PlainOpenLockAppendClose)->UseRealTime()->MinTime(1.5)->Repetitions(3);
BENCHMARK(SpdlogFlushEachLine)->UseRealTime()->MinTime(1.5)->Repetitions(3);
BENCHMARK(FileDestinationSendOnly)->UseRealTime()->MinTime(1.5)->Repetitions(3);
BENCHMARK(RenderLine);
BENCHMARK(FileDestinationCallerCost)->UseManualTime()->MinTime(1.0)->Repetitions(3);
BENCHMARK(SpdlogAsyncCallerCost)->UseManualTime()->MinTime(1.0)->Repetitions(3);

/// The console report, plus the ratios of each of our figures to its peer (medians when the
/// benchmarks repeat).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type != Run::RT_Iteration && !median) {
                continue;
            }
            for (const auto& [name, counter] : run.counters) {
                figures_[run.run_name.function_name + " " + name] = counter.value;
            }
        }
    }

    void printRatios() const {
        std::printf("\nratios (ours / peer):\n");
        ratio("lines/s FileDestination / plain open-append-close", "FileDestinationLines lines/s",
              "PlainOpenAppendClose lines/s");
        ratio("lines/s FileDestination / plain open-lock-append-close",
              "FileDestinationLines lines/s", "PlainOpenLockAppendClose lines/s");
        ratio("lines/s FileDestination / spdlog flush per line", "FileDestinationLines lines/s",
              "SpdlogFlushEachLine lines/s");
        ratio("caller ns per call LogCenter / spdlog async", "FileDestinationCallerCost ns/call",
              "SpdlogAsyncCallerCost ns/call");
    }

private:
    void ratio(const char* label, const std::string& ours, const std::string& peer) const {
        const auto a = figures_.find(ours);
        const auto b = figures_.find(peer);
        if (a == figures_.end() || b == figures_.end() || b->second == 0) {
            std::printf("  %-56s (not measured in this run)\n", label);
            return;
        }
        std::printf("  %-56s %.3f  (%.0f vs %.0f)\n", label, a->second / b->second, a->second,
                    b->second);
    }

    std::map<std::string, double> figures_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    std::error_code ignored;
    fs::remove_all(benchDir(), ignored);
    return 0;
}
