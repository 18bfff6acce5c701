// Decoding and re-encoding a realistic policy, against the floor this JSON library sets: a bare
// parse and dump of the same bytes. Prints our time as a multiple of the floor's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "messages/DeviceConfiguration.h"
#include "messages/JSONCoding.h"

namespace {

// 50 forwarding rules with 3 resolvers each, two locations, a full agent section and an
// upgrade offer, in the stored form.
std::string realisticPolicy() {
    nlohmann::json filters = nlohmann::json::array();
    for (int i = 0; i < 50; ++i) {
        std::string n = std::to_string(i);
        nlohmann::json rule = {
            {"resolvers", {"10.20." + n + ".1", "10.20." + n + ".2", "fd00:20:" + n + "::53"}}};
        if (i % 2 == 0) {
            rule["domain"] = "branch-" + n + ".corp.example.com";
        } else {
            rule["rule"] = "10." + n + ".0.0/16";
        }
        filters.push_back(rule);
    }
    nlohmann::json policy = {
        {"id", 812},
        {"jsonrpc", "2.0"},
        {"result",
         {{"actions",
           {{"upgrade",
             {{"url", "https://downloads.example.com/agent-2.1.0.pkg"}, {"version", "2.1.0"}}}}},
          {"cfg",
           {{"persistent", {{"key", "c4f1d2b0-5a8e-4f4e-9f0e-2d6c1f7a9b31"}}},
            {"runtime",
             {{"locations",
               {{{"name", "Head office"}, {"tag", "loc-7f3a"}, {"rule", "default"}},
                {{"name", "Roaming"}, {"tag", "loc-99b2"}}}},
              {"reconfigure", 3600},
              {"user", "u-0b5e6c1d"},
              {"tarn",
               {{"interfaces_to_ignore", {"utun", "ppp", "wg", "tailscale"}},
                {"log_level", "production"},
                {"ncsi_echo_resolver", "9.9.9.9"},
                {"ncsi_event_delay", 5},
                {"ncsi_interval", 300},
                {"ncsi_interval_disconnected", 30},
                {"ncsi_timeout", 10},
                {"ncsi_url", "http://connectivity.example.com/ncsi.txt"},
                {"tray_type", "balloon"},
                {"unbound_log_queries", false},
                {"unbound_use_syslog", true}}}}}}},
          {"filters", filters}}}};
    return policy.dump();
}

const std::string& policyText() {
    static const std::string text = realisticPolicy();
    return text;
}

void BM_PolicyDecodeEncode(benchmark::State& state) {
    for (auto _ : state) {
        auto policy = morvane::decodeJSON<morvane::DeviceConfiguration>(policyText());
        auto text = morvane::encodeJSON(*policy);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(policyText().size()));
}
BENCHMARK(BM_PolicyDecodeEncode);

void BM_NlohmannParseDump(benchmark::State& state) {
    for (auto _ : state) {
        auto document = nlohmann::json::parse(policyText());
        auto text = document.dump();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(policyText().size()));
}
BENCHMARK(BM_NlohmannParseDump);

// Keeps the console output and remembers each benchmark's CPU time per iteration: the
// machine is shared, so wall time says more about the neighbours than about us.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
                times[run.run_name.function_name] = run.GetAdjustedCPUTime();
            }
        }
    }
    std::map<std::string, double> times;
};

}  // namespace

int main(int argc, char** argv) {
    // The policy must round-trip exactly, or the comparison means nothing.
    auto policy = morvane::decodeJSON<morvane::DeviceConfiguration>(policyText());
    if (!policy || morvane::encodeJSON(*policy) != policyText()) {
        std::fprintf(stderr, "the benchmark policy does not round-trip\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ours = reporter.times.find("BM_PolicyDecodeEncode");
    auto floor = reporter.times.find("BM_NlohmannParseDump");
    if (ours != reporter.times.end() && floor != reporter.times.end()) {
        std::printf(
            "policy of %zu bytes: decode+encode takes %.2fx a bare parse+dump (goal <= 1.30)\n",
            policyText().size(), ours->second / floor->second);
    }
    benchmark::Shutdown();
    return 0;
}
