// BigInt arithmetic against GMP and address parsing against glibc, side by side in one run.
// Each measurement has a twin on the peer; the end of the run prints ours / peer.
//
// Sizes: capacity is 2240 bits with the sign, so "at N bits" means operands of N bits for
// add (2238 at the top, so that the sum fits), a product of N bits for multiply (two N/2-bit
// factors), an N-bit dividend over an N/2-bit divisor for divide, and an N-bit modulus,
// exponent and base for modPow.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <gmp.h>

#include <cstdio>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "ip/BigInt.h"
#include "ip/IPAddress.h"

namespace {

using morvane::ip::BigInt;
using morvane::ip::IPAddress;

std::mt19937_64 rng(42);

// A random number of exactly `bits` bits, in hexadecimal.
std::string randomHex(int bits) {
    std::string digits;
    const int count = (bits + 3) / 4;
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (int i = 0; i < count; ++i) {
        digits.push_back(kHex[rng() % 16]);
    }
    const int topBits = bits - 4 * (count - 1);
    int top = (static_cast<int>(rng() % 16) & ((1 << topBits) - 1)) | (1 << (topBits - 1));
    digits[0] = kHex[top];
    return digits;
}

// The same numbers for both sides, alive for the whole run.
struct Operands {
    std::vector<BigInt> ours;
    std::vector<__mpz_struct> peer;  // mpz_t is an array of one of these

    explicit Operands(const std::vector<std::string>& hex) : peer(hex.size()) {
        for (size_t i = 0; i < hex.size(); ++i) {
            ours.push_back(BigInt::createWithString(hex[i], 16));
            mpz_init_set_str(&peer[i], hex[i].c_str(), 16);
        }
    }
};

std::deque<Operands> operands;

template <typename Ours, typename Peer>
void registerPair(const std::string& task, const Operands& values, Ours ours, Peer peer) {
    benchmark::RegisterBenchmark(("ours:" + task).c_str(),
                                 [&values, ours](benchmark::State& state) {
                                     for (auto _ : state) {
                                         benchmark::DoNotOptimize(ours(values.ours));
                                     }
                                 });
    benchmark::RegisterBenchmark(("peer:" + task).c_str(),
                                 [&values, peer](benchmark::State& state) {
                                     mpz_t result;
                                     mpz_init2(result, 4600);
                                     for (auto _ : state) {
                                         peer(result, values.peer);
                                         benchmark::DoNotOptimize(result);
                                     }
                                     mpz_clear(result);
                                 });
}

void registerArithmetic(int bits) {
    const std::string size = "/" + std::to_string(bits);
    const int top = std::min(bits, 2238);
    using Numbers = std::vector<BigInt>;
    using Peers = std::vector<__mpz_struct>;

    registerPair(
        "add" + size, operands.emplace_back(std::vector{randomHex(top), randomHex(top)}),
        [](const Numbers& v) { return v[0].add(v[1]); },
        [](mpz_t r, const Peers& v) { mpz_add(r, &v[0], &v[1]); });
    registerPair(
        "multiply" + size,
        operands.emplace_back(std::vector{randomHex(top / 2), randomHex(top / 2)}),
        [](const Numbers& v) { return v[0].multiply(v[1]); },
        [](mpz_t r, const Peers& v) { mpz_mul(r, &v[0], &v[1]); });
    registerPair(
        "divide" + size, operands.emplace_back(std::vector{randomHex(top), randomHex(bits / 2)}),
        [](const Numbers& v) { return v[0].divide(v[1]); },
        [](mpz_t r, const Peers& v) { mpz_tdiv_q(r, &v[0], &v[1]); });

    // An odd modulus, as in a primality test, with base and exponent of its size.
    std::string modulus = randomHex(top);
    modulus.back() = '1';
    registerPair(
        "modPow" + size,
        operands.emplace_back(std::vector{randomHex(top - 1), randomHex(top), modulus}),
        [](const Numbers& v) { return v[0].modPow(v[1], v[2]); },
        [](mpz_t r, const Peers& v) { mpz_powm(r, &v[0], &v[1], &v[2]); });
}

const std::vector<std::string> kAddresses = {
    "192.168.1.1",
    "10.0.0.255",
    "8.8.8.8",
    "172.16.254.3",
    "2001:db8::1",
    "fe80::1ff:fe23:4567:890a",
    "::ffff:192.168.1.1",
    "2001:0db8:85a3:0000:0000:8a2e:0370:7334",
};

void registerAddresses() {
    benchmark::RegisterBenchmark("ours:parse+correctForm/mix", [](benchmark::State& state) {
        for (auto _ : state) {
            for (const std::string& text : kAddresses) {
                IPAddress address(text);
                benchmark::DoNotOptimize(address.correctForm());
            }
        }
    });
    benchmark::RegisterBenchmark("peer:parse+correctForm/mix", [](benchmark::State& state) {
        for (auto _ : state) {
            for (const std::string& text : kAddresses) {
                unsigned char bytes[16];
                char out[INET6_ADDRSTRLEN];
                if (inet_pton(AF_INET, text.c_str(), bytes) == 1) {
                    benchmark::DoNotOptimize(inet_ntop(AF_INET, bytes, out, sizeof(out)));
                } else if (inet_pton(AF_INET6, text.c_str(), bytes) == 1) {
                    benchmark::DoNotOptimize(inet_ntop(AF_INET6, bytes, out, sizeof(out)));
                }
                benchmark::DoNotOptimize(std::string(out));
            }
        }
    });
}

// Keeps every run's time, then prints the ratios of the twins.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            times_[run.benchmark_name()] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatios() const {
        std::printf("\n%-28s %12s %12s %8s\n", "ours / peer", "ours (ns)", "peer (ns)", "ratio");
        for (const auto& [name, ours] : times_) {
            if (name.rfind("ours:", 0) != 0) {
                continue;
            }
            const std::string task = name.substr(5);
            if (task.ends_with("_stddev") || task.ends_with("_cv")) {
                continue;
            }
            const auto peer = times_.find("peer:" + task);
            if (peer == times_.end()) {
                continue;
            }
            std::printf("%-28s %12.1f %12.1f %8.2f\n", task.c_str(), ours, peer->second,
                        ours / peer->second);
        }
    }

private:
    std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
    registerArithmetic(1120);
    registerArithmetic(2240);
    registerAddresses();
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
